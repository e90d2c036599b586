#include <gtest/gtest.h>
#include <sstream>

#include "bp/bp.h"
#include "tests/support/bus_peer.h"
#include "tests/support/capture.h"
#include "tests/support/files.h"

TEST(Init, NameMissing_OpensNoLog) {
    Capture stOut(stdout);
    EXPECT_EQ(BP_MwareInit(nullptr, 257), BP_ERR_PARAM);
    EXPECT_EQ(BP_MwareInit("", 257), BP_ERR_PARAM);
    EXPECT_EQ(stOut.Stop(), "BP_MwareInit(): proc name invalid.\nBP_MwareInit(): proc name invalid.\n");
    EXPECT_EQ(BP_Read(g_stBPLogMgr.ulModuleNum), 0U);
    EXPECT_EQ(BP_MwareInit("ks", 257), BP_OK); // nothing had been started
}

static void ExpectFailure(const char *pcName, uint32_t ulProcID, uint32_t ulRet,
                          const std::vector<std::string> &aszLine) {
    EXPECT_EQ(BP_MwareInit(pcName, ulProcID), ulRet);
    const std::string szLog = ReadFile(g_stBPLogMgr.astLogModule[0].stLogFile.szCurName);
    size_t ulPos = 0;
    for (const std::string &szLine : aszLine) {
        ulPos = szLog.find(szLine, ulPos);
        ASSERT_NE(ulPos, std::string::npos) << szLine << "\n" << szLog;
    }
    EXPECT_EQ(BP_GetProcInfo()->lEpollFd, -1);
    EXPECT_EQ(BP_GetProcInfo()->lSocket, -1);
    EXPECT_EQ(BP_GetProcInfo()->lSendSocket, -1);
}

TEST(Init, UnknownProcessID) {
    ExpectFailure("ks", 300, BP_ERR_FAIL,
                  {"[I(0)][bp_module-", "[BP_MwareInit]current process name is 'ks'.",
                   "[BP_ProcInit]fail to find process info by procid 300.",
                   "[BP_MwareInit]fail to init process."});
}

TEST(Init, NameWithoutCommandModule) {
    ExpectFailure("ks2", 257, BP_ERR_FAIL,
                  {"[BP_ProcInit]socket init 0 127.0.0.1",
                   "[BP_RegistModule]fail to find module info by name ks2_cmd.",
                   "[BP_ProcInit]fail to regist cmd module.", "[BP_MwareInit]fail to init process."});
}

TEST(Init, NameOfAnotherProcess) {
    ExpectFailure(
        "MW_IWARE", 101, BP_ERR_FAIL,
        {"[BP_RegistModule]cur proc id 101 != module proc id 102", "[BP_ProcInit]fail to regist cmd module."});
}

TEST(Init, NameTooLong) {
    ExpectFailure(std::string(60, 'n').c_str(), 257, BP_ERR_PARAM,
                  {"[E(2)]", "[BP_ProcInit]proc name too long: nnn", "[BP_MwareInit]fail to init process."});
    EXPECT_EQ(BP_MwareInit("ks", 257), BP_OK); // nothing had been set up
}

TEST(Init, LongestName_IsNotTooLong) {
    ExpectFailure(std::string(59, 'n').c_str(), 257, BP_ERR_FAIL, {"fail to find module info by name nnn"});
}

TEST(Init, PortTaken) {
    BusSocket stTaken(PORT_MWARE);
    // SO_REUSEADDR on both sides would share the port; the peer does not set it.
    ExpectFailure("MW_MWARE", 101, BP_ERR_FAIL,
                  {"[BP_ProcInit]socket init 2048 127.0.0.1", "[W(1)]",
                   "[BP_InitSocket]socket bind failed usLocPort = ;2048", "[BP_ProcInit]fail to init socket."});
}

TEST(Init, TooManyBuffersConfigured) {
    g_astSlabConfig[0].ulNum += 1001 - 764;
    ExpectFailure(
        "ks", 257, BP_ERR_FAIL,
        {"[BP_InitBufManager]totle slab buf num 1001 > 1000.", "[BP_ProcInit]fail to init buf manager."});
}

TEST(Init, Console_HasBothModulesAndTheirThreads) {
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
    const auto szThreads = [] { return ReadFile("/tmp/ThreadInfo[" + std::to_string(getpid()) + "].log"); };
    EXPECT_TRUE(
        WaitFor([&] { return CountOf(szThreads(), "ks_cmd:") == 1 && CountOf(szThreads(), "ks:") == 1; }));
    const std::string szLog = ReadFile("/var/log/ks00.log");
    EXPECT_NE(szLog.find("[BP_MwareInit]BP_MwareInit succeed."), std::string::npos);
    EXPECT_EQ(CountOf(szLog, "[E("), 0U);
}

TEST(Init, Mware_RegistersItsMainModuleItself) {
    ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
    EXPECT_EQ(BP_GetModuleByID(BP_MODULE_ID_MAIN), nullptr);
    EXPECT_NE(BP_GetModuleByID(BP_MODULE_ID_MWARE_CMD), nullptr);
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_MWARE00.log"), "[BP_ProcInit]BP_RegistModule MW_MWARE later!"), 1U);
}

TEST(Init, SecondStart_IsRefusedAndHarmless) {
    ASSERT_EQ(BP_MwareInit("MW_IWARE", 102), BP_OK);
    const int lSocket = BP_GetProcInfo()->lSocket;
    EXPECT_EQ(BP_MwareInit("ks", 257), BP_ERR_FAIL);
    EXPECT_STREQ(BP_GetProcInfo()->szProcName, "MW_IWARE");
    EXPECT_EQ(BP_GetProcInfo()->lSocket, lSocket);
    EXPECT_FALSE(FileExists("/var/log/ks00.log"));
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_IWARE00.log"), "[E(1)]"), 1U);
    EXPECT_EQ(CountOf(ReadFile("/var/log/MW_IWARE00.log"), "started as 'MW_IWARE' already"), 1U);
}

static std::string NameOf(uint32_t ulModuleID) {
    const BP_ModuleConfig *pstRow = BP_GetModuleConfigByID(ulModuleID);
    return pstRow != nullptr ? pstRow->szModuleName : "none";
}

TEST(Config, FirstMatchingRowWins_AndTheMainModuleIsTheCallersOwn) {
    EXPECT_EQ(BP_GetModuleConfigByID(0x90000007), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(BP_GetModuleConfigByName("MW_CC"), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(NameOf(0x90000006), "none");
    EXPECT_EQ(BP_GetModuleConfigByName("mw_cc"), nullptr);
    EXPECT_EQ(BP_GetModuleConfigByName(nullptr), nullptr);
    EXPECT_EQ(BP_GetProcNameByID(0), nullptr);
    const char *apcMain[][2] = {
        {"0", "none"}, {"101", "MW_MWARE"}, {"102", "MW_IWARE"}, {"257", "ks"}, {"258", "sdk_update"}};
    for (const auto &[pcProcID, pcMain] : apcMain) {
        BP_GetProcInfo()->usProcID = static_cast<uint16_t>(atoi(pcProcID));
        EXPECT_EQ(NameOf(BP_MODULE_ID_MAIN), pcMain);
        EXPECT_EQ(NameOf(BP_MODULE_ID_EXT), "update_cmd");
    }
}

// Processes of one device are built apart from each other: whoever changes a row changes it for all of them.
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
