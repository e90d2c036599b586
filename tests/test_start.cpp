// The start of a process, and the tables that it starts from.
#include <filesystem>
#include <sstream>

#include "tests/support/on_bus.h"

class Start : public testing::TestWithParam<std::vector<std::string>> {};

TEST_P(Start, FailsAndLeavesNothing) {
    const std::vector<std::string> &aszRow = GetParam();
    const BusSocket stTaken(aszRow[0] == "PortTaken" ? PORT_MWARE : 0);
    g_astSlabConfig[0].ulNum += aszRow[0] == "TooManyBuffers" ? 1001 - 764 : 0;
    testing::internal::CaptureStdout();
    const char *pcName = aszRow[1] == "null" ? nullptr : aszRow[1].c_str();
    EXPECT_EQ(std::to_string(BP_MwareInit(pcName, static_cast<uint32_t>(std::stoul(aszRow[2])))), aszRow[3]);
    const std::string szPath = g_stBPLogMgr.astLogModule[0].stLogFile.szCurName;
    EXPECT_EQ(testing::internal::GetCapturedStdout() + Bare(ReadFile(szPath)), aszRow[4] + "\n");
    EXPECT_EQ(BP_GetProcInfo()->lEpollFd, -1);
    EXPECT_EQ(BP_GetProcInfo()->lSocket, -1);
    EXPECT_EQ(BP_GetProcInfo()->lSendSocket, -1);
    if (aszRow[3] == "2") { // nothing had been set up
        EXPECT_EQ(BP_MwareInit("ks", 257), BP_OK);
    }
}
INSTANTIATE_TEST_SUITE_P(Row, Start, testing::ValuesIn(Rows("starts.txt")),
                         [](const auto &stInfo) { return stInfo.param[0]; });

static void ExpectThreads(const std::vector<std::string> &aszName) {
    EXPECT_TRUE(WaitFor([&] {
        const std::string szThreads = ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log");
        return std::all_of(aszName.begin(), aszName.end(),
                           [&](const std::string &szName) { return CountOf(szThreads, szName + ":") == 1; });
    }));
}

TEST(Start, ConsoleHasBothModulesAndTheirThreads) {
    ASSERT_EQ(BP_MwareInit("ks", 0xABC00000 + 257), BP_OK); // the low 16 bits count
    const BP_ProcInfo *pstProc = BP_GetProcInfo();
    EXPECT_STREQ(pstProc->szProcName, "ks");
    EXPECT_EQ(pstProc->usProcID, 257);
    EXPECT_EQ(pstProc->ulCmdModuleID, 0x90009001U);
    EXPECT_EQ(pstProc->ulMainModuleID, BP_MODULE_ID_MAIN);
    EXPECT_EQ(pstProc->lSocket, pstProc->lSendSocket);
    EXPECT_STREQ(BP_GetCurThreadName(), "ks");
    struct sockaddr_in stAddr = {};
    socklen_t ulLen = sizeof(stAddr);
    getsockname(pstProc->lSocket, reinterpret_cast<struct sockaddr *>(&stAddr), &ulLen);
    EXPECT_EQ(stAddr.sin_port, 0);
    EXPECT_TRUE(AllSlabsFull());
    BP_System("ls -l /proc/self/fd >/tmp/ks_test_inherited");
    const std::string szInherited = ReadFile("/tmp/ks_test_inherited");
    EXPECT_FALSE(Matches(szInherited, "anon_inode|socket|/var/log")) << szInherited;
    ExpectThreads({"ks_cmd", "ks"});
    const std::string szLog = ReadFile("/var/log/ks00.log");
    EXPECT_EQ(CountOf(szLog, "[BP_MwareInit]BP_MwareInit succeed."), 1U);
    EXPECT_EQ(CountOf(szLog, "[E("), 0U);
}

TEST(Start, MwareRegistersItsMainModuleItself) {
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    EXPECT_EQ(BP_GetModuleByID(BP_MODULE_ID_MAIN), nullptr);
    EXPECT_NE(BP_GetModuleByID(BP_MODULE_ID_MWARE_CMD), nullptr);
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_MWARE00.log"), "[BP_ProcInit]BP_RegistModule MW_MWARE later!"), 1U);
}

// Processes of one device are built apart from each other: a row that changes, changes for all of them.
TEST(Config, TablesAreTheDevices) {
    std::ostringstream stTables;
    for (const BP_ModuleConfig &stRow : g_astModuleConfigInfo) {
        stTables << stRow.szModuleName << " " << std::hex << stRow.ulModuleID << std::dec << " "
                 << stRow.usProcID << "\n";
    }
    for (const BP_ProcConfig &stRow : g_astProcConfigInfo) {
        stTables << stRow.szProcName << " " << stRow.usProcID << " " << stRow.szIP << ":" << stRow.usPort
                 << "\n";
    }
    for (const BP_SlabConfig &stRow : g_astSlabConfig) {
        stTables << stRow.ulNum << " of " << stRow.ulSize << "\n";
    }
    EXPECT_EQ(stTables.str(), ReadFile(KS_TEST_DATA "/tables.txt"));
}

TEST(Config, FirstMatchingRowWins_AndTheMainModuleIsTheCallersOwn) {
    const auto pfnNameOf = [](uint32_t ulModuleID) {
        const BP_ModuleConfig *pstRow = BP_GetModuleConfigByID(ulModuleID);
        return pstRow != nullptr ? std::string(pstRow->szModuleName) : "none";
    };
    EXPECT_EQ(BP_GetModuleConfigByID(0x90000007), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(BP_GetModuleConfigByName("MW_CC"), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(pfnNameOf(NOBODY), "none");
    EXPECT_EQ(BP_GetModuleConfigByName("mw_cc"), nullptr);
    EXPECT_EQ(BP_GetModuleConfigByName(nullptr), nullptr);
    EXPECT_EQ(BP_GetProcNameByID(0), nullptr);
    const std::pair<uint16_t, const char *> astMain[] = {
        {0, "none"}, {101, "MW_MWARE"}, {102, "MW_IWARE"}, {257, "ks"}, {258, "sdk_update"}};
    for (const auto &[usProcID, pcMain] : astMain) {
        BP_GetProcInfo()->usProcID = usProcID;
        EXPECT_EQ(pfnNameOf(BP_MODULE_ID_MAIN), pcMain);
        EXPECT_EQ(pfnNameOf(BP_MODULE_ID_EXT), "update_cmd");
    }
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

// Each call of the function that a start makes fails once. A program that goes on then has no socket left that
// nothing uses.
class StartShortage : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(Each, StartShortage,
                         testing::Values("calloc", "pthread_create", "socket", "bind", "setsockopt", "ioctl",
                                         "epoll_create", "epoll_ctl", "eventfd", "timerfd_create"),
                         [](const auto &stInfo) { return stInfo.param; });

TEST_P(StartShortage, LeavesNoSocket) {
    const auto pfnStart = [ulBefore = Transports()] {
        const bool bStarted = BP_MwareInit("MW_IWARE", 102) == BP_OK;
        const bool bClosed = Transports() == ulBefore;
        const bool bInUse = BP_GetModuleByID(BP_MODULE_ID_IWARE_CMD) != nullptr; // its thread may use them
        const bool bSaid = bStarted || CountOf(ReadFile("/var/log/MW_IWARE00.log"), "[E(") != 0;
        _exit((bStarted || bClosed != bInUse) && bSaid ? 0 : 1);
    };
    bool bFailed = true;
    for (int lCall = 1; bFailed; lCall++) {
        SCOPED_TRACE(lCall);
        unlink("failed");
        setenv("KS_FAIL", (GetParam() + (":" + std::to_string(lCall))).c_str(), 1);
        EXPECT_EXIT(pfnStart(), testing::ExitedWithCode(0), ""); // the runtime starts once in a process
        bFailed = FileExists("failed");
    }
}

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
