#include <gtest/gtest.h>
#include <sstream>

#include "bp/bp.h"
#include "tests/support/files.h"

static std::string NameOf(uint32_t ulModuleID) {
    const BP_ModuleConfig *pstRow = BP_GetModuleConfigByID(ulModuleID);
    return pstRow != nullptr ? pstRow->szModuleName : "none";
}

// The processes of the device agree on these tables; a slip in one row breaks a bus that no test here would
// see.
TEST(Config, TablesAreTheDevices) {
    std::ostringstream stSum;
    for (const BP_ModuleConfig &stRow : g_astModuleConfigInfo) {
        stSum << stRow.szModuleName << " " << std::hex << stRow.ulModuleID << " " << std::dec
              << BP_Read(stRow.usProcID) << "|";
    }
    EXPECT_EQ(
        stSum.str(),
        "MW_MWARE ffffffff 101|MW_CTRL 90000001 101|MW_STOR_MCP 90000002 101|MW_PTZ 90000003 101|"
        "MW_ALM 90000004 101|MW_SNMP 90000005 101|MW_CC 90000007 101|MW_SDK 9000000b 101|MW_MP 9000000c 101|"
        "MW_IW 9000000e 101|MW_UPNP 9000000f 101|MW_INTERFACE 9000000d 101|MW_LIGHTAPI 90000010 101|"
        "MW_LISTEN 90000014 101|MW_WEB 90000013 101|CC_GB 90007000 101|MW_CC 90000007 101|CC_RA 90007002 101|"
        "AM_RM 90007003 101|AM_SIP 90007004 101|MW_MWARE_cmd fffffffe 101|ks ffffffff 257|ks_cmd 90009001 257|"
        "update_cmd fffffffc 101|sdk_update ffffffff 258|sdk_update_cmd 9000a001 258|MW_IWARE_cmd fffffffd 102|"
        "MW_IWARE ffffffff 102|MW_IWAREEXT fffffffc 102|MW_MWAREEXT fffffffc 101|MW_SRLZ 90000011 101|"
        "MW_SERIAL 90000012 101|MW_TIPS 90000015 101|");
}

TEST(Config, FirstMatchingRowWins) {
    EXPECT_EQ(BP_GetModuleConfigByID(0x90000007), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(BP_GetModuleConfigByName("MW_CC"), &g_astModuleConfigInfo[6]);
    EXPECT_EQ(NameOf(BP_MODULE_ID_EXT), "update_cmd");
    EXPECT_EQ(NameOf(0x90000006), "none");
    EXPECT_EQ(BP_GetModuleConfigByName("mw_cc"), nullptr);
    EXPECT_EQ(BP_GetModuleConfigByName(nullptr), nullptr);
    EXPECT_EQ(BP_GetProcNameByID(102)->usPort, 2049);
    EXPECT_EQ(BP_GetProcNameByID(0), nullptr);
}

TEST(Config, MainModuleIsTheCallersOwn) {
    const struct {
        uint16_t usProcID;
        std::string szName;
    } astCase[] = {{0, "none"}, {101, "MW_MWARE"}, {102, "MW_IWARE"}, {257, "ks"}, {258, "sdk_update"}};
    for (const auto &stCase : astCase) {
        BP_GetProcInfo()->usProcID = stCase.usProcID;
        EXPECT_EQ(NameOf(BP_MODULE_ID_MAIN), stCase.szName);
        EXPECT_EQ(NameOf(BP_MODULE_ID_EXT), "update_cmd");
    }
}

TEST(Config, FailuresAreReported) {
    BP_InitLog("ks");
    BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID);
    uint32_t ulID = 7;
    EXPECT_EQ(BP_GetModuleID("MW_IWARE_cmd", &ulID), BP_OK);
    EXPECT_EQ(ulID, BP_MODULE_ID_IWARE_CMD);
    EXPECT_EQ(BP_GetModuleID("mw_mware_cmd", &ulID), BP_ERR_FAIL);
    EXPECT_EQ(ulID, BP_MODULE_ID_IWARE_CMD);
    EXPECT_EQ(BP_GetModuleID(nullptr, &ulID), BP_ERR_PARAM);
    EXPECT_EQ(BP_GetModuleID("ks", nullptr), BP_ERR_PARAM);
    EXPECT_EQ(BP_GetModuleNameByID(0x90000006), nullptr);
    EXPECT_STREQ(BP_GetModuleNameByID(0x90000003), "MW_PTZ");
    const std::string szLog = ReadFile("/var/log/ks00.log");
    EXPECT_EQ(CountOf(szLog, "[E(2)][bp_module-"), 2U) << szLog;
    EXPECT_EQ(CountOf(szLog, "[BP_GetModuleID]invalid input params."), 2U);
    EXPECT_EQ(CountOf(szLog, "[BP_GetModuleID]fail to find module info."), 1U);
    EXPECT_EQ(CountOf(szLog, "[BP_GetModuleNameByID]fail to find module info."), 1U);
}
