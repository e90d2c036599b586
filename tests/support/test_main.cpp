// Entry of every test program. With --prompt, after GoogleTest's own arguments, its process has the prompt
// pace.
#include <cstring>
#include <gtest/gtest.h>

#include "bp/bp.h"

int main(int argc, char **argv) {
    testing::InitGoogleTest(&argc, argv);
    BP_SetPromptDelivery(argc > 1 && strcmp(argv[1], "--prompt") == 0 ? 1 : 0);
    return RUN_ALL_TESTS();
}
