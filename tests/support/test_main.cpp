// Entry of every test program, which runs in a sandbox.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include "tests/support/files.h"
#include "tests/support/on_bus.h"
#include "tests/support/program.h"
#include "tests/support/sandbox.h"

// What the programs under test leave in directories that they share with the machine's other programs.
static const char g_szOurFiles[] =
    "^/var/log/((ks2?|n+|MW_MWARE|MW_IWARE|MW_DRV|ISP_IMG|own|t)0[01]\\.(log|debug|buf)|Slab_all\\.log|"
    "Slab_Keyinfo\\.log|Timer_info\\.log|ks_test_.*)$|^/tmp/(ThreadInfo(\\[[0-9]+]|[0-9])\\.log|ks_test_.*)$";

static void TestRemoveOurFiles() {
    std::error_code stError; // a process of the last case may be ending, and what it had with it
    for (const char *pcDir : {"/var/log", "/tmp"}) {
        for (const auto &stEntry : std::filesystem::directory_iterator(pcDir, stError)) {
            if (Matches(stEntry.path(), g_szOurFiles)) {
                std::filesystem::remove_all(stEntry.path(), stError);
            }
        }
    }
}

// Without namespaces the machine's own files and ports are used, by one test program at a time, and only while
// no process serves the ports, whose log it would be.
static void TestUseMachine() {
    fprintf(stderr, "private namespaces are not permitted: using this machine's own files and ports\n");
    flock(open("/var/log", O_RDONLY | O_DIRECTORY | O_CLOEXEC), LOCK_EX);
    for (const uint16_t usPort : {PORT_MWARE, PORT_IWARE}) {
        const BusSocket stFree(usPort);
    }
    TestRemoveOurFiles();
}

// Files that no program under test names are made in a directory of the test's own.
static void TestEnterScratchDir() {
    char szDir[] = "/tmp/ks_test_XXXXXX";
    if (mkdtemp(szDir) == nullptr || chdir(szDir) != 0) {
        perror(szDir);
        exit(1);
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
    const bool bLists = TestOnlyLists(argc, argv);
    const bool bOnMachine = !bLists && !TestEnterSandbox(argv);
    if (bOnMachine) {
        TestUseMachine();
    }
    testing::InitGoogleTest(&argc, argv);
    TestChoosePace(argc > 1 && strcmp(argv[1], "--prompt") == 0);
    if (!bLists) {
        TestEnterScratchDir();
    }
    const int lRet = RUN_ALL_TESTS();
    if (bOnMachine) {
        TestRemoveOurFiles();
    }
    return lRet;
}
