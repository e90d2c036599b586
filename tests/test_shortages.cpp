// Each call that may find the system short of something fails once, one after the other, until none is left
// that has not. The programs are the real ones, and a console and its target go on as far as they can.
#include <csignal>
#include <filesystem>
#include <unistd.h>

#include "tests/support/on_bus.h"
#include "tests/support/program.h"
#include "tests/support/threads.h"

static const char g_szFailed[] = "failed";

// A row: the program, the function that fails, the pace, and what is said in the order of its calls; what
// several calls in a row say stands there once. An empty text is for failures that are kept quiet.
class Shortage : public testing::TestWithParam<size_t> {
protected:
    static bool Says(const std::string &szText, const std::string &szSaid) {
        return szSaid.empty() ? !Matches(szText, "\\[E\\(|failed") : CountOf(szText, szSaid) > 0;
    }
    // Runs the programs and returns everything they said. The failing one takes KS_FAIL with it.
    static std::string RunConsole();
    static std::string RunTarget();
    static std::string RunStart();
};

std::string Shortage::RunConsole() {
    const std::string szFail = getenv("KS_FAIL");
    unsetenv("KS_FAIL");
    const auto pstMware = StartExample(KS_MWARE_PATH);
    setenv("KS_FAIL", szFail.c_str(), 1);
    Program stKs({KS_FAILING_PATH});
    unsetenv("KS_FAIL");
    std::string szText;
    for (const char *pcKeys : {"", "e\t", "display ptz\r", "display loglevel\r", "q\r"}) {
        stKs.Type(pcKeys);
        szText += stKs.ReadUntil(pcKeys[0] == '\0' || pcKeys[0] == 'q' ? "<dbg>" : "\r\n[dbg]");
    }
    stKs.Type("q\r");
    const std::string szLog = ReadFile("/var/log/ks00.log");
    const bool bUnused = CountOf(szText, "<dbg>") == 0; // what ends before its prompt says why
    EXPECT_EQ(stKs.WaitExit(), bUnused && CountOf(szLog, "[CLI_Init]") == 0 ? 1 : 0);
    return szText + szLog;
}

std::string Shortage::RunTarget() {
    WriteFile("/var/log/MW_DRV00.log", "drv\n");
    WriteFile("/var/log/ISP_IMG00.log", "isp\n");
    auto pstMware = StartExample(KS_MWARE_FAILING_PATH);
    unsetenv("KS_FAIL");
    const int lStatus = pstMware->WaitExit(0);
    EXPECT_TRUE(lStatus == -1 || lStatus == 1) << lStatus;
    if (lStatus == -1) {
        Program stKs({KS_PATH});
        stKs.EnterDebugMode();
        // A thread that still starts would open its file between those of the dumps. Without a log none is
        // listed.
        EXPECT_TRUE(WaitFor([&stKs] {
            const size_t ulListed = CountOf(stKs.Command("display thread"), "MW_");
            return ulListed == 0 || ulListed == CountOf(stKs.Command("display module"), "MW_");
        }));
        EXPECT_EQ(CountOf(stKs.Command("display dump yes"), "/var/log/Slab_all.log"), 1U);
        EXPECT_EQ(CountOf(stKs.Command("display ptz"), "degrees"), 1U);
        pstMware->Signal(SIGTERM);
        EXPECT_EQ(pstMware->WaitExit(), 0);
    }
    return ReadFile("/var/log/MW_MWARE00.log");
}

static size_t Transports() {
    std::error_code stError; // the descriptor of the walk itself is gone when it is looked at
    size_t ulNum = 0;
    for (const auto &stFd : std::filesystem::directory_iterator("/proc/self/fd")) {
        const std::string szFile = std::filesystem::read_symlink(stFd.path(), stError);
        ulNum += Matches(szFile, "^(socket|anon_inode):") ? 1 : 0;
    }
    return ulNum;
}

// A program that goes on after its start has failed has no socket left that nothing uses.
std::string Shortage::RunStart() {
    const auto pfnStart = [ulBefore = Transports()] {
        const bool bStarted = BP_MwareInit("MW_IWARE", 102) == BP_OK;
        const bool bClosed = Transports() == ulBefore;
        const bool bInUse = BP_GetModuleByID(BP_MODULE_ID_IWARE_CMD) != nullptr; // its thread may use them
        _exit(bStarted || bClosed != bInUse ? 0 : 1);
    };
    EXPECT_EXIT(pfnStart(), testing::ExitedWithCode(0), ""); // the runtime starts once in a process
    return "[E(";
}

TEST_P(Shortage, IsSaidAndEverythingGoesOn) {
    const std::vector<std::string> aszRow = Rows("shortages.txt")[GetParam()];
    const auto pfnRun = aszRow[0] == "console" ? RunConsole : aszRow[0] == "target" ? RunTarget : RunStart;
    TestChoosePace(aszRow[2] == "prompt");
    size_t ulAt = 3;
    for (int lCall = 1; lCall < 100; lCall++) {
        const std::string szFail = aszRow[1] + ":" + std::to_string(lCall);
        SCOPED_TRACE(szFail);
        for (const char *pcFile : {g_szFailed, "/var/log/ks00.log", "/var/log/MW_MWARE00.log"}) {
            unlink(pcFile);
        }
        setenv("KS_FAIL", szFail.c_str(), 1);
        const std::string szText = pfnRun();
        if (!FileExists(g_szFailed)) {
            EXPECT_EQ(ulAt, aszRow.size() - 1) << "nothing has said: " << aszRow[ulAt];
            return;
        }
        if (!Says(szText, aszRow[ulAt]) && ulAt + 1 < aszRow.size()) {
            ulAt++;
        }
        EXPECT_TRUE(Says(szText, aszRow[ulAt])) << szText;
    }
    FAIL() << "fails for ever";
}
INSTANTIATE_TEST_SUITE_P(Each, Shortage, testing::Range<size_t>(0, Rows("shortages.txt").size()),
                         [](const auto &stInfo) {
                             const std::vector<std::string> aszRow = Rows("shortages.txt")[stInfo.param];
                             return aszRow[0] + "_" + aszRow[1] + "_" + aszRow[2];
                         });

// The command handlers are there before messages can arrive, so a console that starts in between is answered.
static uint32_t g_ulStarted = 0;
TEST(StartOrder, CommandsAreServedBeforeTheMainModuleRuns) {
    static const BP_PfnStart pfnOwn = [] { return g_ulStarted++ == 0 ? BP_OK : BP_ERR_FAIL; };
    for (int i = 0; i < 2; i++) {
        ASSERT_EQ(BP_AddStartHook(pfnOwn), BP_OK);
        ASSERT_EQ(BP_StartCmd(), BP_OK);
    }
    setenv("KS_FAIL", "pthread_create:2", 1);
    EXPECT_EQ(BP_MwareInit("MW_IWARE", 102), BP_ERR_FAIL);
    EXPECT_EQ(BP_GetModuleByID(BP_MODULE_ID_MAIN), nullptr);
    EXPECT_EQ(g_ulStarted, 1U);
    BP_ModuleInfo *pstCmd = BP_GetModuleByID(BP_MODULE_ID_IWARE_CMD);
    ASSERT_NE(pstCmd, nullptr);
    EXPECT_NE(BP_GetMsgProcByMsgID(&pstCmd->stMsgProcCtrl, BP_CMD_GET_TREE), nullptr);
}

// Starts of a module's thread that fail while other threads send to it: what they send is either refused or
// served.
TEST(RegistShortage, FailedThreadStart_AmidSenders_LosesNothing) {
    setenv("KS_FAIL", "pthread_create:-3", 1);
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK);
    BP_SetLogLevel(BP_LOG_LEVEL_FATAL);
    {
        const Repeater stOne([] { BP_PostMsg(MW_PTZ, 1, "x", 1); });
        const Repeater stTwo([] { BP_PostMsg(MW_PTZ, 1, "x", 1); });
        for (int i = 0; i < 20000; i++) {
            EXPECT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_ERR_FAIL);
        }
    }
    EXPECT_EQ(BP_GetModuleByID(MW_PTZ), nullptr);
    EXPECT_TRUE(AllSlabsFull());
}

TEST(LogShortage, LongLineWithoutMemory_IsLostAlone) {
    BP_InitLog("ks");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    const std::string szLong(3000, 'x');
    testing::internal::CaptureStderr();
    setenv("KS_FAIL", "malloc:1", 1);
    for (const char *pcEnd : {"lost", "kept"}) {
        BP_WriteLog(BP_LOG_LEVEL_WARN, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "%s %s", szLong.c_str(), pcEnd);
    }
    unsetenv("KS_FAIL");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[bp_log-903]Write file /var/log/ks00.log failed:Cannot allocate memory\n");
    EXPECT_TRUE(Matches(ReadFile("/var/log/ks00.log"), "^[^x]*x{3000} kept\r\n$"));
}
