// Entry of every test program.
#include <cstring>
#include <gtest/gtest.h>

#include "tests/support/program.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    TestChoosePace(argc > 1 && strcmp(argv[1], "--prompt") == 0);
    return RUN_ALL_TESTS();
}
