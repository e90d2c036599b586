// Each call that may find the system short of something fails once, one after the other, until none is left
// that has not. The programs are the real ones, and a console and its target go on as far as they can.
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/console.h"
#include "tests/support/files.h"

static const char g_szFailed[] = "/tmp/failed";

// What the failures of one function say, in the order of its calls; what several calls in a row say stands here
// once. An empty text is for failures that nobody is told of.
struct ShortageCase {
    const char *pcFunction;
    std::vector<std::string> aszSaid;
};

static void PrintTo(const ShortageCase &stCase, std::ostream *pstOut) {
    *pstOut << stCase.pcFunction;
}

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
      "no commands from MW_MWARE: only the built-in commands will work",
      "no module list from MW_MWARE: debug and nodebug cannot show it", "",
      "[CLI_ExecuteCmd]fail to send cmd msg", "", "[CLI_ExecuteCmd]fail to send cmd msg", ""}},
    {"pthread_create",
     {"[BP_ProcInit]fail to regist cmd module.", "[kestrel error] fail to init program.",
      "[CLI_Init]fail to BP_RegistModule()."}},
    {"pthread_mutex_init",
     {"", "[BP_InitBufManager]fail to init BuffLogMgr lock", "BP_RegCmdModuleID() failed"}},
    {"socket", {"[BP_InitSocket]fail to create socket."}},
    {"setsockopt",
     {"[BP_SetSocketProperty]setsockopt SO_REUSERADDR failed",
      "[BP_SetSocketProperty]setsockopt SO_LINGER failed"}},
    {"ioctl", {"[BP_SetSocketProperty]ioctl socket failed"}},
    {"epoll_create", {"[BP_ProcInit]fail to create epoll.", "[BP_InnerSendSyncMsg]fail to create epoll."}},
    {"epoll_ctl", {"[BP_InitSocket]fail to add socket to epoll."}},
    {"open", {"[bp_log-878]Open file /var/log/ks00.log failed:Too many open files", ""}},
    {"fdopen", {"[bp_log-878]Open file /var/log/ks00.log failed:Cannot allocate memory", ""}},
    {"vfork", {""}},
    {"tcsetattr", {"[CLI_run]tcsetattr fail errcode:5(Input/output error). retval:4294967295", ""}},
};
INSTANTIATE_TEST_SUITE_P(Each, ConsoleShortage, testing::ValuesIn(g_astConsoleCase),
                         [](const auto &stInfo) { return std::string(stInfo.param.pcFunction); });

class TargetShortage : public Shortage {};

TEST_P(TargetShortage, SaysSoAndGoesOn) {
    WriteFile("/var/log/MW_DRV00.log", "drv\n");
    WriteFile("/var/log/ISP_IMG00.log", "isp\n");
    FailEach([] {
        Child stMware({KS_MWARE_FAILING_PATH});
        unsetenv("KS_FAIL");
        if (stMware.WaitForOutput("ready")) {
            PtySession stKs({KS_PATH});
            EnterDebugMode(&stKs);
            EXPECT_EQ(CountOf(Command(&stKs, "display dump"), "/var/log/Slab_all.log"), 1U);
            EXPECT_EQ(CountOf(Command(&stKs, "display ptz"), "degrees"), 1U);
        }
        return ReadFile("/var/log/MW_MWARE00.log");
    });
}

static const ShortageCase g_astTargetCase[] = {
    {"calloc",
     {"[BP_InitBufManager]fail to calloc", "[BP_ProcInit]fail to get socket recv buffer.", "]calloc() fail"}},
    {"pthread_create", {"[BP_RegistModule]pthread_create fail err:11"}},
    {"open",
     {"", "]Write Slab Log fail", "]Write timer Slab Log fail", "]Collect MWARE SlabLog fail",
      "]Collect DRV SlabLog fail", "]Collect ISP SlabLog fail"}},
};
INSTANTIATE_TEST_SUITE_P(Each, TargetShortage, testing::ValuesIn(g_astTargetCase),
                         [](const auto &stInfo) { return std::string(stInfo.param.pcFunction); });
