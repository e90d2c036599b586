// The start of a process, and the tables that it starts from.
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
