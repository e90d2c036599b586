// Entry of every test program, which runs in a sandbox.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/pty_session.h"
#include "tests/support/sandbox.h"

// What the runtime leaves behind, as shell patterns. The names of thread information files are their process's
// own.
#define TEST_LOG_FILES "/var/log/*0[01].log /var/log/*0[01].debug /var/log/*0[01].buf"

static bool g_bOnMachine;

// Without namespaces the machine's own files are used. They are removed again, so they must not have been there
// before.
static void TestUseMachine() {
    fprintf(stderr, "private namespaces are not permitted: using this machine's own files and ports\n");
    if (system("ls " TEST_LOG_FILES " 2>/dev/null | grep -q .") == 0) {
        fprintf(stderr, "there are log files already, which the tests would spoil: %s\n", TEST_LOG_FILES);
        exit(1);
    }
    g_bOnMachine = true;
}

static void TestCleanMachine() {
    usleep(200000); // the runtime's threads have nothing more to say by then
    if (system("rm -rf /tmp/go /var/log/aside /tmp/ThreadInfo*.log " TEST_LOG_FILES) != 0) {
        perror("rm");
    }
}

static bool TestOnlyLists(int argc, char **argv) {
    for (int i = 1; i < argc; i++) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) {
            return true;
        }
    }
    return false;
}

int main(int argc, char **argv) {
    if (!TestOnlyLists(argc, argv) && !TestEnterSandbox(argv)) {
        TestUseMachine();
    }
    testing::InitGoogleTest(&argc, argv);
    TestChoosePace(argc > 1 && strcmp(argv[1], "--prompt") == 0);
    const int lRet = RUN_ALL_TESTS();
    if (g_bOnMachine) {
        TestCleanMachine();
    }
    return lRet;
}
