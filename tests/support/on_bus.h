// The test program as a process on the bus: MW_MWARE with the module MW_CTRL, without a main thread at first.
#ifndef TESTS_SUPPORT_ON_BUS_H
#define TESTS_SUPPORT_ON_BUS_H

#include <string>

#include "tests/support/bus_peer.h"
#include "tests/support/files.h"

constexpr uint32_t MW_CTRL = 0x90000001;
constexpr uint32_t MW_PTZ = 0x90000003;
constexpr uint32_t NOBODY = 0x90000006; // in no table

inline std::string TextOf(const BP_StructMsg &stMsg) {
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    return BP_DecodeStructMsgData(&stMsg, &pucText, &ulLen) == BP_OK
               ? std::string(reinterpret_cast<char *>(pucText), ulLen)
               : "no payload";
}

class OnBus : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(BP_MwareInit("MW_MWARE", 101), BP_OK);
        ASSERT_EQ(BP_RegistModule("MW_CTRL", 1, nullptr), BP_OK);
        pstCtrl_ = BP_GetModuleByID(MW_CTRL);
    }
    void TearDown() override { EXPECT_TRUE(AllSlabsRefill()); }
    static void StartMainThread() { ASSERT_EQ(BP_RegistModule("MW_MWARE", 1, nullptr), BP_OK); }
    static void SetDebug(bool bOn) {
        BP_Write(BP_FindLogModule(BP_LOG_BP_MODULE_ID)->ulDebugOn, bOn ? 1U : 0U);
    }
    static std::string Log() { return ReadFile("/var/log/MW_MWARE00.log"); }
    static std::string DebugLog() { return ReadFile("/var/log/MW_MWARE00.debug"); }
    static size_t Logged(const std::string &szText) { return CountOf(Log(), szText); }
    // A message of MW_CTRL, whichever thread calls.
    static BP_StructMsg Make(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText,
                             uint32_t ulType = BP_MSG_TYPE_NORMAL) {
        BP_StructMsg stMsg = BP_CreatStructMsg(szText.data(), static_cast<uint32_t>(szText.size()));
        EXPECT_EQ(BP_ConfigMsgHdr(&stMsg, MW_CTRL, ulDstID, ulMsgCode, ulType), BP_OK);
        return stMsg;
    }
    static void Send(uint32_t ulDstID, uint32_t ulMsgCode, const std::string &szText,
                     uint32_t ulType = BP_MSG_TYPE_NORMAL) {
        BP_StructMsg stMsg = Make(ulDstID, ulMsgCode, szText, ulType);
        EXPECT_EQ(BP_SendMsgProc(BP_GetModuleByID(MW_CTRL), &stMsg), BP_OK);
        BP_EraseMsgData(&stMsg);
    }
    BP_ModuleInfo *pstCtrl_ = nullptr;
};

#endif
