// What the runtime refuses: calls, and in tests/data what each of them results in and logs.
#include "tests/support/on_bus.h"

class Refusals : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_RegCmdModuleID("MW_IWARE_cmd", 0, 0, BP_MODULE_ID_IWARE_CMD), BP_OK);
        SetDebug(true);
    }
    void Note(const char *pcCall, const std::function<uint32_t()> &pfnCall) {
        const size_t ulLog = Log().size();
        const size_t ulDebug = DebugLog().size();
        const uint32_t ulRet = pfnCall();
        szSeen_ += std::string(pcCall) + " = " + std::to_string(ulRet) + "\n" +
                   Bare(Log().substr(ulLog) + DebugLog().substr(ulDebug));
    }
    void ExpectNoted(const std::string &szFile) {
        EXPECT_EQ(szSeen_, ReadFile(KS_TEST_DATA "/refusals/" + szFile));
    }
    static uint32_t Handler(uint32_t, BP_StructMsg *, uint32_t) { return BP_OK; }
    std::string szSeen_;
    uint32_t ulID_ = 4711;
    BP_StructMsg stEmpty_ = {};
};
#define CALL(...) Note(#__VA_ARGS__, [&]() -> uint32_t { return __VA_ARGS__; })

TEST_F(Refusals, Modules) {
    BP_MsgHdr stStranger = {};
    stStranger.ulModuleSrcID = NOBODY;
    const std::string szLong(255, 'n');
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    const BP_StructMsg stMsg = Make(MW_PTZ, 1, "x");
    CALL(BP_GetModuleID(nullptr, &ulID_));
    CALL(BP_GetModuleID("ks", nullptr));
    CALL(BP_GetModuleID("mw_mware_cmd", &ulID_));
    CALL(BP_GetModuleNameByID(NOBODY) == nullptr);
    CALL(BP_RegistModule(nullptr, 1, nullptr));
    CALL(BP_RegistModule(szLong.c_str(), 1, nullptr));
    CALL(BP_RegistModule("MW_ctrl", 1, &ulID_));
    CALL(ulID_);
    CALL(BP_RegistModule("ks_cmd", 1, &ulID_));
    CALL(ulID_);
    CALL(BP_WakeupModule(NOBODY));
    CALL(BP_WakeupModule(BP_MODULE_ID_MAIN));
    CALL(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 5, nullptr, 0));
    CALL(BP_RegistMsgProc(MW_CTRL, 2, 5, Handler, 0));
    CALL(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 5, Handler, 0));
    CALL(BP_GetMsgProcByMsgID(nullptr, 51) == nullptr);
    CALL(BP_ModuleAddMsg(&stQueue, nullptr));
    CALL(BP_ModuleGetMsg(nullptr, BP_GET_FIRST, 0) == nullptr);
    CALL(BP_ModuleGetMsg(&stQueue, 7, 0) == nullptr);
    CALL(BP_ModuleAddMsg(&stQueue, stMsg.pstSlabBuf));
    CALL(BP_ModuleAddMsg(&stQueue, stMsg.pstSlabBuf));
    CALL(BP_ModuleGetMsg(&stQueue, 7, 0) == nullptr);
    CALL(BP_ModuleGetMsg(&stQueue, BP_GET_BY_ASSI_ID, 9) == nullptr);
    CALL(BP_SlabFreeBuf(stMsg.pstSlabBuf));
    CALL(BP_SlabFreeBuf(stMsg.pstSlabBuf));
    CALL(BP_FreeTimeoutAckMsg(&stStranger), 0);
    CALL(BP_ThreadRecvMsgProc(nullptr));
    CALL(BP_ThreadTimerProc(nullptr));
    CALL(BP_ThreadProcMain(nullptr) == nullptr);
    CALL(BP_MwareInit("ks", 257));
    ExpectNoted("modules.txt");
    EXPECT_FALSE(FileExists("/var/log/ks00.log"));
    EXPECT_DEATH(BP_MainThreadProcMain(nullptr), "Assertion `\\(\\(void \\*\\)0\\) != pstWorkModule' failed");
}

TEST_F(Refusals, FullTables) {
    for (uint32_t i = 1; i <= BP_MAX_MSG_PROC_NUM; i++) {
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, i, Handler, i), BP_OK);
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 1, Handler, i), BP_ERR_PARAM);
    }
    StartMainThread();
    CALL(BP_RegistModule("MW_MWARE", 1, nullptr));
    for (uint32_t i = 3; i < BP_MAX_MODULE_NUM; i++) { // three are registered
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    }
    CALL(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 51, Handler, 0));
    CALL(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 50)->ulParam);
    CALL(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 51) == nullptr);
    CALL(BP_RegistModule("MW_PTZ", 1, nullptr));
    ExpectNoted("full-tables.txt");
}

TEST_F(Refusals, Messages) {
    static char acBig[16384 - 40 + 1];
    BP_SlabBuf stNoData;
    BP_SlabBuf stForeign;
    stForeign.usSlabId = 8;
    BP_StructMsg stHollow = {0, 0, &stNoData};
    BP_StructMsg stShort = BP_CreatStructMsg(nullptr, 0);
    BP_Write<uint16_t>(stShort.pstSlabBuf->usLen, 39);
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    CALL(BP_SlabFreeBuf(nullptr));
    CALL(BP_SlabFreeBuf(&stForeign));
    CALL(BP_CreatStructMsg(nullptr, 1).pstSlabBuf == nullptr);
    CALL(BP_CreatStructMsg(acBig, sizeof(acBig)).pstSlabBuf == nullptr);
    CALL(BP_CreatStructMsg(acBig, 0xFFFFFFFF).pstSlabBuf == nullptr); // with its header the length wraps
    CALL(BP_ConfigMsgHdr(nullptr, 1, 2, 3, 0));
    CALL(BP_ConfigMsgHdr(&stEmpty_, MW_PTZ, 2, 3, 0));
    CALL(BP_ConfigMsgHdr(&stEmpty_, MW_CTRL, NOBODY, 3, 0));
    CALL(BP_ConfigMsgHdr(&stEmpty_, MW_CTRL, MW_PTZ, 3, 0));
    CALL(BP_ConfigMsgHdr(&stHollow, MW_CTRL, MW_PTZ, 3, 0));
    CALL(BP_Read(pstCtrl_->ulAssiMsgSeq)); // no number was used up
    CALL(BP_DecodeStructMsgData(&stHollow, nullptr, &ulLen));
    CALL(BP_DecodeStructMsgData(&stEmpty_, &pucText, &ulLen));
    CALL(BP_DecodeStructMsgData(&stHollow, &pucText, &ulLen));
    CALL(BP_DecodeStructMsgData(&stShort, &pucText, &ulLen));
    CALL(BP_EraseMsgData(&stShort), stShort.pstSlabBuf == nullptr);
    CALL(BP_EraseMsgData(&stEmpty_), 0);
    CALL(BP_EraseMsgData(nullptr), 0);
    CALL(BP_TransMsgToModule(nullptr));
    CALL(BP_GetNextMsgHdr(nullptr), 0);
    CALL(BP_SetSocketProperty(-1, BP_SOCK_TYPE_DGRAM));
    CALL(BP_SetSocketProperty(0x7FFFFFFF, BP_SOCK_TYPE_DGRAM));
    ExpectNoted("messages.txt");
}

TEST_F(Refusals, Sending) {
    BP_StructMsg stRsp = {};
    BP_StructMsg stMsg = Make(MW_PTZ, 5, "x");
    const auto SendTo = [&](uint32_t ulDstID, BP_ModuleInfo *pstSrc) {
        BP_MsgHdrOf(stMsg.pstSlabBuf)->ulModuleDstID = ulDstID;
        return BP_SendMsgProc(pstSrc, &stMsg);
    };
    const std::string szHuge(20000, 'x');
    char *pcAnswer = nullptr;
    CALL(BP_SendMsgProc(nullptr, nullptr));
    CALL(BP_SendMsgProc(pstCtrl_, nullptr));
    CALL(BP_SendMsgProc(pstCtrl_, &stEmpty_));
    CALL(SendTo(MW_PTZ, pstCtrl_));
    CALL(SendTo(NOBODY, pstCtrl_));
    CALL(BP_PostMsg(MW_CTRL, 1, nullptr, 0)); // without a sender: there is no main module
    CALL(StartMainThread(), 0);
    CALL(SendTo(BP_MODULE_ID_MAIN, BP_GetModuleByID(BP_MODULE_ID_MAIN)));
    CALL(BP_Read(pstCtrl_->ulSendCnt));
    CALL(BP_PostMsg(MW_CTRL, 1, nullptr, 5));
    CALL(BP_PostMsg(NOBODY, 1, nullptr, 0));
    CALL(BP_PostMsg(BP_MODULE_ID_MAIN, 1, nullptr, 0));
    CALL(BP_SendAckMsg(nullptr, "x", 1));
    CALL(BP_InnerSendSyncMsg(1, 1, nullptr, &stRsp, 0));
    CALL(BP_InnerSendSyncMsg(1, 1, &stMsg, nullptr, 0));
    CALL(BP_InnerSendSyncMsg(1, 1, &stEmpty_, &stRsp, 0));
    CALL(BP_InnerSendSyncMsg(NOBODY, 1, &stMsg, &stRsp, 0));
    CALL(BP_SendCmdMsg(nullptr, BP_MODULE_ID_IWARE_CMD, 1, 0, &pcAnswer));
    CALL(BP_SendCmdMsg("x", BP_MODULE_ID_IWARE_CMD, 1, 0, nullptr));
    CALL(BP_SendCmdMsg("x", NOBODY, 1, 0, &pcAnswer));
    CALL(BP_SendCmdMsg(szHuge.c_str(), BP_MODULE_ID_IWARE_CMD, 1, 0, &pcAnswer));
    CALL(pcAnswer == nullptr);
    ExpectNoted("sending.txt");
    BP_EraseMsgData(&stMsg); // still the handle's after every refusal
}

TEST_F(Refusals, Timers) {
    StartMainThread(); // a thread that unregisters needs a module
    uint32_t *pulID = &ulID_;
    const auto Regist = [&](const std::vector<std::string> &aszField) {
        uint32_t aulField[10];
        std::transform(aszField.begin(), aszField.end(), aulField,
                       [](const std::string &szField) { return static_cast<uint32_t>(std::stol(szField)); });
        BP_TimerParam stParam = {};
        stParam.ulType = aulField[0];
        stParam.lInterval = static_cast<int32_t>(aulField[1]);
        stParam.usDay = static_cast<uint16_t>(aulField[2]);
        stParam.usHour = static_cast<uint16_t>(aulField[3]);
        stParam.usMinute = static_cast<uint16_t>(aulField[4]);
        stParam.usSecond = static_cast<uint16_t>(aulField[5]);
        stParam.lStartTime = static_cast<int32_t>(aulField[6]);
        stParam.lStopTime = static_cast<int32_t>(aulField[7]);
        stParam.ulCbType = aulField[8];
        stParam.ulModuleID = aulField[9] == 1 ? MW_CTRL : MW_PTZ;
        const BP_PfnTimerCom pfnComCb = [](uint32_t, uint32_t) { return BP_OK; };
        stParam.pfnComCb = aulField[9] != 0 ? pfnComCb : nullptr;
        return BP_RegistTimer(&stParam, pulID);
    };
    const std::vector<std::string> aszValid = {"1", "1000", "0", "0", "0", "0", "0", "0", "0", "1"};
    CALL(BP_RegistTimer(nullptr, &ulID_));
    pulID = nullptr;
    CALL(Regist(aszValid));
    pulID = &ulID_;
    for (const auto &aszRow : Rows("refusals/timer-params.txt")) {
        Note(aszRow[0].c_str(), [&] { return Regist({aszRow.begin() + 1, aszRow.end()}); });
    }
    CALL(BP_UnregistTimer(4711));
    CALL(ulID_);
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) { // none of the refused ones has taken a place
        ASSERT_EQ(Regist(aszValid), BP_OK);
    }
    SetDebug(false); // the main thread's scan writes there
    CALL(Regist(aszValid));
    ExpectNoted("timers.txt");
}
