#include <gtest/gtest.h>

#include "bp/bp.h"
#include "tests/support/files.h"

static std::string NameOf(uint32_t ulModuleID) {
    const BP_ModuleConfig *pstRow = BP_GetModuleConfigByID(ulModuleID);
    return pstRow != nullptr ? pstRow->szModuleName : "none";
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
