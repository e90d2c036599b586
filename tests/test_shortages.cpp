// Each call that may find the system short of something fails once, one after the other, until none is left
// that has not. The programs are the real ones, and a console and its target go on as far as they can.
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <unistd.h>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/capture.h"
#include "tests/support/console.h"
#include "tests/support/files.h"
#include "tests/support/threads.h"

static const char g_szFailed[] = "failed";

// What the failures of one function say, in the order of its calls; what several calls in a row say stands here
// once. An empty text is for failures that nobody is told of.
struct ShortageCase {
    const char *pcFunction;
    std::vector<std::string> aszSaid;
    bool bPrompt = false; // the pace of the example process
};

static void PrintTo(const ShortageCase &stCase, std::ostream *pstOut) {
    *pstOut << stCase.pcFunction;
}

static std::string NameOf(const testing::TestParamInfo<ShortageCase> &stInfo) {
    return std::string(stInfo.param.pcFunction) + (stInfo.param.bPrompt ? "_prompt" : "");
}

static const std::vector<std::string> g_aszNoOption = {"[BP_SetSocketProperty]setsockopt SO_REUSERADDR failed",
                                                       "[BP_SetSocketProperty]setsockopt SO_LINGER failed"};

class Shortage : public testing::TestWithParam<ShortageCase> {
protected:
    // Makes each call fail in turn; pfnRun runs the programs and returns everything they said.
    static void FailEach(const std::function<std::string()> &pfnRun) {
        const std::vector<std::string> &aszSaid = GetParam().aszSaid;
        size_t ulAt = 0;
        for (int lCall = 1; lCall < 100; lCall++) {
            const std::string szFail = GetParam().pcFunction + (":" + std::to_string(lCall));
            SCOPED_TRACE(szFail);
            unlink(g_szFailed);
            unlink("/var/log/ks00.log");
            unlink("/var/log/MW_MWARE00.log");
            setenv("KS_FAIL", szFail.c_str(), 1);
            const std::string szText = pfnRun();
            if (!FileExists(g_szFailed)) {
                EXPECT_EQ(ulAt, aszSaid.size() - 1) << "nothing has said: " << aszSaid[ulAt];
                return;
            }
            if (!Says(szText, aszSaid[ulAt]) && ulAt + 1 < aszSaid.size()) {
                ulAt++;
            }
            EXPECT_TRUE(Says(szText, aszSaid[ulAt])) << szText;
        }
        FAIL() << "fails for ever";
    }
    static bool Says(const std::string &szText, const std::string &szSaid) {
        return szSaid.empty() ? CountOf(szText, "[E(") + CountOf(szText, "failed") == 0
                              : CountOf(szText, szSaid) > 0;
    }
};

class ConsoleShortage : public Shortage {};

TEST_P(ConsoleShortage, SaysSoAndGoesOn) {
    Child stMware({KS_MWARE_PATH});
    ASSERT_TRUE(stMware.WaitForOutput("ready"));
    FailEach([] {
        PtySession stKs({KS_FAILING_PATH});
        unsetenv("KS_FAIL");
        std::string szText;
        for (const char *pcKeys : {"", "e\t", "display ptz\r", "display loglevel\r", "q\r"}) {
            stKs.Type(pcKeys);
            szText += stKs.ReadUntil(pcKeys[0] == '\0' || pcKeys[0] == 'q' ? "<dbg>" : "\r\n[dbg]");
        }
        stKs.Type("q\r");
        const bool bUnused = CountOf(szText, "<dbg>") == 0; // what ends before its prompt says why
        EXPECT_EQ(stKs.WaitExit(),
                  bUnused && CountOf(ReadFile("/var/log/ks00.log"), "[CLI_Init]") == 0 ? 1 : 0);
        return szText + ReadFile("/var/log/ks00.log");
    });
}

static const ShortageCase g_astConsoleCase[] = {
    {"calloc",
     {"[BP_InitBufManager]fail to calloc new memory. size=264192",
      "[BP_ProcInit]fail to get socket recv buffer.", "[CLI_Init]fail to CLI_InitNodeRoot().",
      "[CLI_ExecuteCmd]fail to send cmd msg", "[CLI_ExecuteCmd]fail to CLI_InitNodeRoot.",
      "no commands from MW_MWARE: start ks again once it answers",
      "no module list from MW_MWARE: debug and nodebug cannot show it", "",
      "[CLI_ExecuteCmd]fail to send cmd msg", "", "[CLI_ExecuteCmd]fail to send cmd msg", ""}},
    {"pthread_create",
     {"[BP_ProcInit]fail to regist cmd module.", "[kestrel error] fail to init program.",
      "[CLI_Init]fail to BP_RegistModule()."}},
    {"pthread_mutex_init",
     {"", "[BP_InitBufManager]fail to init BuffLogMgr lock", "BP_RegCmdModuleID() failed"}},
    {"socket", {"[BP_InitSocket]fail to create socket."}},
    {"setsockopt", g_aszNoOption},
    {"ioctl", {"[BP_SetSocketProperty]ioctl socket failed"}},
    {"epoll_create", {"[BP_ProcInit]fail to create epoll.", "[BP_InnerSendSyncMsg]fail to create epoll."}},
    {"epoll_ctl", {"[BP_InitSocket]fail to add socket to epoll."}},
    {"open", {"[bp_log-878]Open file /var/log/ks00.log failed:Too many open files", ""}},
    {"fdopen", {"[bp_log-878]Open file /var/log/ks00.log failed:Cannot allocate memory", ""}},
    {"vfork", {""}},
    {"tcsetattr", {"[CLI_run]tcsetattr fail errcode:5(Input/output error). retval:4294967295", ""}},
};
INSTANTIATE_TEST_SUITE_P(Each, ConsoleShortage, testing::ValuesIn(g_astConsoleCase), NameOf);

// The rows, and those of the default pace for the prompt one too, where that has none of its own.
static std::vector<ShortageCase> AtBothPaces(std::vector<ShortageCase> astCase) {
    const size_t ulNum = astCase.size();
    for (size_t i = 0; i < ulNum; i++) {
        const bool bHasOwn = std::any_of(astCase.begin(), astCase.end(), [&](const ShortageCase &stCase) {
            return stCase.bPrompt && strcmp(stCase.pcFunction, astCase[i].pcFunction) == 0;
        });
        if (!bHasOwn) {
            astCase.push_back(astCase[i]);
            astCase.back().bPrompt = true;
        }
    }
    return astCase;
}

class TargetShortage : public Shortage {};

TEST_P(TargetShortage, SaysSoAndGoesOn) {
    const char *pcOptions = getenv("ASAN_OPTIONS"); // one more tells a leak from a start that failed
    setenv("ASAN_OPTIONS", (std::string(pcOptions != nullptr ? pcOptions : "") + ":exitcode=99").c_str(), 1);
    WriteFile("/var/log/MW_DRV00.log", "drv\n");
    WriteFile("/var/log/ISP_IMG00.log", "isp\n");
    FailEach([] {
        std::vector<std::string> aszArg = {KS_MWARE_FAILING_PATH, "MW_MWARE"};
        if (GetParam().bPrompt) {
            aszArg.emplace_back("prompt");
        }
        Child stMware(aszArg);
        unsetenv("KS_FAIL");
        const bool bReady = stMware.WaitForOutput("ready");
        if (bReady) {
            PtySession stKs({KS_PATH});
            EnterDebugMode(&stKs);
            // A thread that still starts would open its file between those of the dumps. Without a log none is
            // listed.
            EXPECT_TRUE(WaitFor([&stKs] {
                const size_t ulListed = CountOf(Command(&stKs, "display thread"), "MW_");
                return ulListed == 0 || ulListed == CountOf(Command(&stKs, "display module"), "MW_");
            }));
            EXPECT_EQ(CountOf(Command(&stKs, "display dump yes"), "/var/log/Slab_all.log"), 1U);
            EXPECT_EQ(CountOf(Command(&stKs, "display ptz"), "degrees"), 1U);
            stMware.Signal(SIGTERM);
        }
        EXPECT_EQ(stMware.WaitExit(), bReady ? 0 : 1);
        return ReadFile("/var/log/MW_MWARE00.log");
    });
}

static const std::vector<std::string> g_aszNoDump = {"",
                                                     "]Write Slab Log fail",
                                                     "]Write timer Slab Log fail",
                                                     "]Collect MWARE SlabLog fail",
                                                     "]Collect DRV SlabLog fail",
                                                     "]Collect ISP SlabLog fail"};

static const std::vector<ShortageCase> g_astTargetCase = {
    {"calloc",
     {"[BP_InitBufManager]fail to calloc", "[BP_ProcInit]fail to get socket recv buffer.", "]calloc() fail"}},
    {"pthread_create", {"[BP_RegistModule]pthread_create fail err:11"}},
    {"pthread_mutex_init",
     {"", "[BP_InitBufManager]fail to init BuffLogMgr lock", "[MW_StartLogModule]no log module for "}},
    {"socket", {"[BP_InitSocket]fail to create socket."}},
    {"bind", {"[BP_InitSocket]socket bind failed usLocPort = ;"}},
    {"setsockopt", g_aszNoOption},
    {"ioctl", {"[BP_SetSocketProperty]ioctl socket failed"}},
    {"epoll_create", {"[BP_ProcInit]fail to create epoll."}},
    {"epoll_ctl", {"[BP_InitSocket]fail to add socket to epoll."}},
    {"epoll_ctl",
     {"[BP_ProcInit]fail to init prompt delivery.", "[BP_InitSocket]fail to add socket to epoll."},
     true},
    {"eventfd", {"[BP_ProcInit]fail to init prompt delivery."}, true},
    {"timerfd_create", {"[BP_ProcInit]fail to init prompt delivery."}, true},
    {"open", g_aszNoDump},
    {"fdopen", g_aszNoDump},
    {"vfork", {""}},
};
INSTANTIATE_TEST_SUITE_P(Each, TargetShortage, testing::ValuesIn(AtBothPaces(g_astTargetCase)), NameOf);

// A program that goes on after its start has failed.
class StartShortage : public Shortage {
protected:
    static size_t Transports() {
        std::error_code stError; // the descriptor of the walk itself is gone when it is looked at
        size_t ulNum = 0;
        for (const auto &stFd : std::filesystem::directory_iterator("/proc/self/fd")) {
            const std::string szFile = std::filesystem::read_symlink(stFd.path(), stError);
            ulNum += Matches(szFile, "^(socket|anon_inode):") ? 1 : 0;
        }
        return ulNum;
    }
};

TEST_P(StartShortage, LeavesNoSocketThatNobodyUses) {
    const size_t ulBefore = Transports();
    FailEach([ulBefore] {
        pid_t lPid = fork(); // the runtime starts once in a process
        if (lPid == 0) {
            TestChoosePace(GetParam().bPrompt);
            const bool bStarted = BP_MwareInit("MW_IWARE", 102) == BP_OK;
            const bool bClosed = Transports() == ulBefore;
            const bool bInUse = BP_GetModuleByID(BP_MODULE_ID_IWARE_CMD) != nullptr; // its thread may use them
            _exit(bStarted || bClosed != bInUse ? 0 : 1);
        }
        unsetenv("KS_FAIL");
        EXPECT_EQ(WaitForEnd(&lPid, 30), 0);
        return std::string("[E(");
    });
}

static const std::vector<ShortageCase> g_astStartCase = {
    {"calloc", {"[E("}},        {"pthread_create", {"[E("}},
    {"socket", {"[E("}},        {"bind", {"[E("}},
    {"setsockopt", {"[E("}},    {"ioctl", {"[E("}},
    {"epoll_create", {"[E("}},  {"epoll_ctl", {"[E("}},
    {"eventfd", {"[E("}, true}, {"timerfd_create", {"[E("}, true},
};
INSTANTIATE_TEST_SUITE_P(Each, StartShortage, testing::ValuesIn(AtBothPaces(g_astStartCase)), NameOf);

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
    const uint32_t ulPtzID = BP_GetModuleConfigByName("MW_PTZ")->ulModuleID;
    {
        std::atomic<bool> bDone{false};
        const Threads stSenders(3, [&](uint32_t) {
            while (!bDone) {
                BP_PostMsg(ulPtzID, 1, "x", 1);
            }
        });
        for (int i = 0; i < 20000; i++) {
            EXPECT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_ERR_FAIL);
        }
        bDone = true;
    }
    EXPECT_EQ(BP_GetModuleByID(ulPtzID), nullptr);
    EXPECT_TRUE(AllSlabsFull());
}

TEST(LogShortage, LongLineWithoutMemory_IsLostAlone) {
    BP_InitLog("ks");
    ASSERT_EQ(BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID), BP_OK);
    const std::string szLong(3000, 'x');
    Capture stErr(stderr);
    setenv("KS_FAIL", "malloc:1", 1);
    for (const char *pcEnd : {"lost", "kept"}) {
        BP_WriteLog(BP_LOG_LEVEL_WARN, 0, BP_LOG_BP_MODULE_ID, "a.c", 1, "%s %s", szLong.c_str(), pcEnd);
    }
    unsetenv("KS_FAIL");
    EXPECT_EQ(stErr.Stop(), "[bp_log-903]Write file /var/log/ks00.log failed:Cannot allocate memory\n");
    EXPECT_TRUE(Matches(ReadFile("/var/log/ks00.log"), "^[^x]*x{3000} kept\r\n$"));
}
