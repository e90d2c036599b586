// What the runtime refuses: a row is a call, its result, and the whole of what it logs.
#include <regex>
#include <sstream>

#include "tests/support/on_bus.h"
#include "tests/support/slab_check.h"

// Lines without time and place: level, code, text. Addresses are left out.
static std::string Bare(const std::string &szLog) {
    static const std::regex stLine(R"(^.{18}\[(.)\((\d+)\)\]\[.*-\d+\](.*)\r$)");
    static const std::regex stAddress("0x[0-9a-f]{9,}");
    std::istringstream stLines(szLog);
    std::string szAll;
    for (std::string szLine; std::getline(stLines, szLine);) {
        szLine = std::regex_replace(szLine, stLine, "$1($2) $3");
        szAll += (szAll.empty() ? "" : "\n") + std::regex_replace(szLine, stAddress, "0x");
    }
    return szAll;
}

struct Refusal {
    const char *pcCall;
    std::function<uint32_t()> pfnCall;
    uint32_t ulRet;
    const char *pcLines;
};
#define CALL(...) #__VA_ARGS__, [&]() -> uint32_t { return __VA_ARGS__; }

class Refusals : public OnBus {
protected:
    void SetUp() override {
        OnBus::SetUp();
        ASSERT_EQ(BP_RegCmdModuleID("MW_IWARE_cmd", 0, 0, BP_MODULE_ID_IWARE_CMD), BP_OK);
        SetDebug(true);
    }
    static void Check(const std::vector<Refusal> &astRow) {
        for (const Refusal &stRow : astRow) {
            const size_t ulLog = Log().size();
            const size_t ulDebug = DebugLog().size();
            EXPECT_EQ(stRow.pfnCall(), stRow.ulRet) << stRow.pcCall;
            EXPECT_EQ(Bare(Log().substr(ulLog) + DebugLog().substr(ulDebug)), stRow.pcLines) << stRow.pcCall;
        }
    }
    uint32_t ulID_ = 4711;
};

TEST_F(Refusals, Modules) {
    BP_MsgHdr stStranger = {};
    stStranger.ulModuleSrcID = NOBODY;
    BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    BP_StructMsg stMsg = Make(MW_PTZ, 1, "x");
    const auto Handler = [](uint32_t, BP_StructMsg *, uint32_t) { return BP_OK; };
    Check({
        {CALL(BP_GetModuleID(nullptr, &ulID_)), BP_ERR_PARAM, "E(2) [BP_GetModuleID]invalid input params."},
        {CALL(BP_GetModuleID("ks", nullptr)), BP_ERR_PARAM, "E(2) [BP_GetModuleID]invalid input params."},
        {CALL(BP_GetModuleID("mw_mware_cmd", &ulID_)), BP_ERR_FAIL,
         "E(1) [BP_GetModuleID]fail to find module info.\nD(0) [BP_GetModuleID]get module mw_mware_cmd id."},
        {CALL(BP_GetModuleNameByID(NOBODY) == nullptr), true,
         "E(1) [BP_GetModuleNameByID]fail to find module info."},
        {CALL(BP_RegistModule(nullptr, 1, nullptr)), BP_ERR_PARAM,
         "E(2) [BP_RegistModule]invalid input params."},
        {CALL(BP_RegistModule(std::string(255, 'n').c_str(), 1, nullptr)), BP_ERR_PARAM,
         "E(2) [BP_RegistModule]invalid input params."},
        {CALL(BP_RegistModule("MW_ctrl", 1, nullptr)), BP_ERR_FAIL,
         "E(1) [BP_RegistModule]fail to find module info by name MW_ctrl."},
        {CALL(ulID_ == 4711), true, ""},
        {CALL(BP_RegistModule("ks_cmd", 1, &ulID_)), BP_ERR_FAIL,
         "E(1) [BP_RegistModule]cur proc id 101 != module proc id 257"},
        {CALL(ulID_ == 0x90009001), true, ""},
        {CALL(BP_WakeupModule(NOBODY)), BP_ERR_FAIL, "E(1) [BP_WakeupModule]invalid ulModuleID 90000006."},
        {CALL(BP_WakeupModule(BP_MODULE_ID_MAIN)), BP_OK, ""},
        {CALL(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_NORMAL, 5, nullptr, 0)), BP_ERR_PARAM,
         "E(2) [BP_RegistMsgProc]invalid input params."},
        {CALL(BP_RegistMsgProc(MW_CTRL, 2, 5, Handler, 0)), BP_ERR_PARAM,
         "E(2) [BP_RegistMsgProc]invalid input params."},
        {CALL(BP_RegistMsgProc(MW_PTZ, BP_PROC_TABLE_NORMAL, 5, Handler, 0)), BP_ERR_NO_MODULE,
         "E(1041) [BP_RegistMsgProc]invalid module id 90000003."},
        {CALL(BP_GetMsgProcByMsgID(nullptr, 51) == nullptr), true,
         "E(2) [BP_GetMsgProcByMsgID]invalid input params."},
        {CALL(BP_ModuleAddMsg(&stQueue, nullptr)), BP_ERR_PARAM,
         "E(2) [BP_ModuleAddMsg]invalid input params, pstMstCtrl:0x, pstSlabBuf:(nil)"},
        {CALL(BP_ModuleGetMsg(nullptr, BP_GET_FIRST, 0) == nullptr), true,
         "E(2) [BP_ModuleGetMsg]invalid input params."},
        {CALL(BP_ModuleGetMsg(&stQueue, 7, 0) == nullptr), true, ""},
        {CALL(BP_ModuleAddMsg(&stQueue, stMsg.pstSlabBuf)), BP_OK, ""},
        {CALL(BP_ModuleAddMsg(&stQueue, stMsg.pstSlabBuf)), BP_ERR_PARAM,
         "E(2) [BP_ModuleAddMsg]invalid input params, pstMstCtrl:0x, pstSlabBuf:0x"},
        {CALL(BP_ModuleGetMsg(&stQueue, 7, 0) == nullptr), true,
         "W(0) [BP_ModuleGetMsg]enGetbyType(7) is invalid."},
        {CALL(BP_ModuleGetMsg(&stQueue, BP_GET_BY_ASSI_ID, 9) == nullptr), true, ""},
        {CALL(BP_SlabFreeBuf(stMsg.pstSlabBuf)), BP_OK,
         "W(0) [BP_SlabFreeBuf]buffer has not be del - slab 0 bid:744 f:0"},
        {CALL(BP_SlabFreeBuf(stMsg.pstSlabBuf)), BP_OK,
         "W(0) [BP_SlabFreeBuf]buffer has been freed - slab 0 bid:744 f:0"},
        {CALL(BP_FreeTimeoutAckMsg(&stStranger), 0), 0,
         "W(0) [BP_FreeTimeoutAckMsg]Not Found Src Module:2415919110"},
        {CALL(BP_ThreadRecvMsgProc(nullptr)), BP_ERR_PARAM, "E(2) [BP_ThreadRecvMsgProc]invalid input params."},
        {CALL(BP_ThreadTimerProc(nullptr)), BP_ERR_PARAM, "E(2) [BP_ThreadTimerProc]invalid input params."},
        {CALL(BP_ThreadProcMain(nullptr) == nullptr), true,
         "E(2) [BP_ThreadProcMain]invalid thread input params."},
        {CALL(BP_MwareInit("ks", 257)), BP_ERR_FAIL,
         "E(1) [BP_MwareInit]process has been started as 'MW_MWARE' already."},
    });
    EXPECT_DEATH(BP_MainThreadProcMain(nullptr), "Assertion `\\(\\(void \\*\\)0\\) != pstWorkModule' failed");
}

TEST_F(Refusals, FullTables) {
    const auto Handler = [](uint32_t, BP_StructMsg *, uint32_t) { return BP_OK; };
    for (uint32_t i = 1; i <= BP_MAX_MSG_PROC_NUM; i++) {
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, i, Handler, i), BP_OK);
        ASSERT_EQ(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 1, Handler, i), BP_ERR_PARAM);
    }
    StartMainThread();
    Check({{CALL(BP_RegistModule("MW_MWARE", 1, nullptr)), BP_ERR_FAIL,
            "E(1) [BP_RegistModule]main module MW_MWARE is registered already."}});
    for (uint32_t i = 3; i < BP_MAX_MODULE_NUM; i++) { // three are registered
        ASSERT_EQ(BP_RegistModule("MW_PTZ", 1, nullptr), BP_OK);
    }
    Check({
        {CALL(BP_RegistMsgProc(MW_CTRL, BP_PROC_TABLE_INNER, 51, Handler, 0)), BP_ERR_FAIL,
         "E(1) [BP_RegistMsgProc]module MW_CTRL msg code 51: table is full."},
        {CALL(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 50)->ulParam), 50, ""},
        {CALL(BP_GetMsgProcByMsgID(&pstCtrl_->stInnerProcCtrl, 51) == nullptr), true, ""},
        {CALL(BP_RegistModule("MW_PTZ", 1, nullptr)), BP_ERR_FAIL, "E(1) there is no free module struct"},
    });
}

TEST_F(Refusals, Messages) {
    static char acBig[16384 - 40 + 1];
    BP_StructMsg stEmpty = {};
    BP_SlabBuf stNoData;
    BP_SlabBuf stForeign;
    stForeign.usSlabId = 8;
    BP_StructMsg stHollow = {0, 0, &stNoData};
    BP_StructMsg stShort = BP_CreatStructMsg(nullptr, 0);
    BP_Write<uint16_t>(stShort.pstSlabBuf->usLen, 39);
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    Check({
        {CALL(BP_SlabFreeBuf(nullptr)), BP_ERR_PARAM, "E(2) [BP_SlabFreeBuf]invalid input params."},
        {CALL(BP_SlabFreeBuf(&stForeign)), BP_ERR_PARAM, "E(2) [BP_SlabFreeBuf]invalid slabid 8."},
        {CALL(BP_CreatStructMsg(nullptr, 1).pstSlabBuf == nullptr), true,
         "E(2) [BP_CreatStructMsg]invalid input param"},
        {CALL(BP_CreatStructMsg(acBig, sizeof(acBig)).pstSlabBuf == nullptr), true,
         "D(0) [BP_CreatStructMsg]fail to get slab buffer(buffer size:16385)."},
        // With its header the length wraps.
        {CALL(BP_CreatStructMsg(acBig, 0xFFFFFFFF).pstSlabBuf == nullptr), true,
         "D(0) [BP_CreatStructMsg]fail to get slab buffer(buffer size:39)."},
        {CALL(BP_ConfigMsgHdr(nullptr, 1, 2, 3, 0)), BP_ERR_PARAM,
         "E(2) [BP_ConfigMsgHdr]invalid input param."},
        {CALL(BP_ConfigMsgHdr(&stEmpty, MW_PTZ, 2, 3, 0)), BP_ERR_PARAM,
         "E(2) [BP_ConfigMsgHdr]invalid ulModuleDstID:2415919107."},
        {CALL(BP_ConfigMsgHdr(&stEmpty, MW_CTRL, NOBODY, 3, 0)), BP_ERR_PARAM,
         "E(2) [BP_ConfigMsgHdr]invalid ulModuleDstID:0x90000006."},
        {CALL(BP_ConfigMsgHdr(&stEmpty, MW_CTRL, MW_PTZ, 3, 0)), BP_ERR_PARAM,
         "D(0) [BP_ConfigMsgHdr]invalid slab buffer."},
        {CALL(BP_ConfigMsgHdr(&stHollow, MW_CTRL, MW_PTZ, 3, 0)), BP_ERR_PARAM,
         "D(0) [BP_ConfigMsgHdr]invalid msg head buffer."},
        {CALL(BP_Read(pstCtrl_->ulAssiMsgSeq)), 0, ""}, // no number was used up
        {CALL(BP_DecodeStructMsgData(&stHollow, nullptr, &ulLen)), BP_ERR_PARAM,
         "E(2) [BP_DecodeStructMsgData]invalid input param: pstMsg[0x] ppucMemInter[(nil)] pulMemLen[0x]"},
        {CALL(BP_DecodeStructMsgData(&stEmpty, &pucText, &ulLen)), BP_ERR_PARAM,
         "E(2) [BP_DecodeStructMsgData]invalid input param"},
        {CALL(BP_DecodeStructMsgData(&stHollow, &pucText, &ulLen)), BP_ERR_PARAM,
         "E(2) [BP_DecodeStructMsgData]invalid slab buffer."},
        {CALL(BP_DecodeStructMsgData(&stShort, &pucText, &ulLen)), BP_ERR_PARAM,
         "E(2) [BP_DecodeStructMsgData]invalid slab buffer len: 39 < 40."},
        {CALL(BP_EraseMsgData(&stShort), stShort.pstSlabBuf == nullptr), true, ""},
        {CALL(BP_EraseMsgData(&stEmpty), 0), 0, "D(0) [BP_EraseMsgData]invalid slab buffer."},
        {CALL(BP_EraseMsgData(nullptr), 0), 0, "E(2) [BP_EraseMsgData]invalid input param"},
        {CALL(BP_TransMsgToModule(nullptr)), BP_ERR_PARAM, "E(2) [BP_TransMsgToModule]invalid input param."},
        {CALL(BP_GetNextMsgHdr(nullptr), 0), 0, "E(2) [BP_GetNextMsgHdr]invalid input param."},
        {CALL(BP_SetSocketProperty(-1, BP_SOCK_TYPE_DGRAM)), BP_ERR_PARAM,
         "E(2) [BP_SetSocketProperty]lSocket = -1 is invalid!"},
        {CALL(BP_SetSocketProperty(0x7FFFFFFF, BP_SOCK_TYPE_DGRAM)), BP_ERR_FAIL,
         "E(1) [BP_SetSocketProperty]ioctl socket failed"},
    });
}

TEST_F(Refusals, Sending) {
    BP_StructMsg stEmpty = {};
    BP_StructMsg stRsp = {};
    BP_StructMsg stMsg = Make(MW_PTZ, 5, "x");
    const auto SendTo = [&](uint32_t ulDstID, BP_ModuleInfo *pstSrc) {
        BP_MsgHdrOf(stMsg.pstSlabBuf)->ulModuleDstID = ulDstID;
        return BP_SendMsgProc(pstSrc, &stMsg);
    };
    const std::string szHuge(20000, 'x');
    char *pcAnswer = nullptr;
    Check({
        {CALL(BP_SendMsgProc(nullptr, nullptr)), BP_ERR_PARAM, "E(2) [BP_SendMsgProc]fail to find src module."},
        {CALL(BP_SendMsgProc(pstCtrl_, nullptr)), BP_ERR_PARAM,
         "E(2) [BP_SendMsgProc]fail to get send msg data."},
        {CALL(BP_SendMsgProc(pstCtrl_, &stEmpty)), BP_ERR_PARAM, "D(0) [BP_SendMsgProc]invalid slab buffer."},
        {CALL(SendTo(MW_PTZ, pstCtrl_)), BP_ERR_FAIL,
         "E(1) [BP_SendMsgProc] dst module id 90000003 is invalid."},
        {CALL(SendTo(NOBODY, pstCtrl_)), BP_ERR_PARAM,
         "E(2) [BP_SendMsgProc]invalid ulModuleDstID:2415919110."},
        {CALL(BP_PostMsg(MW_CTRL, 1, nullptr, 0)), BP_ERR_FAIL,
         "E(1) [BP_PostMsg]fail to find src module."}, // from nobody: there is no main module
        {CALL(StartMainThread(), 0), 0, ""},
        {CALL(SendTo(BP_MODULE_ID_MAIN, BP_GetModuleByID(BP_MODULE_ID_MAIN))), BP_ERR_FAIL,
         "E(1) [BP_SendMsgProc]src module id and dst module id are all invalid."},
        {CALL(BP_Read(pstCtrl_->ulSendCnt)), 0, ""},
        {CALL(BP_PostMsg(MW_CTRL, 1, nullptr, 5)), BP_ERR_FAIL, "E(2) [BP_CreatStructMsg]invalid input param"},
        {CALL(BP_PostMsg(NOBODY, 1, nullptr, 0)), BP_ERR_PARAM,
         "E(2) [BP_ConfigMsgHdr]invalid ulModuleDstID:0x90000006."},
        {CALL(BP_PostMsg(BP_MODULE_ID_MAIN, 1, nullptr, 0)), BP_ERR_FAIL,
         "E(1) [BP_SendMsgProc]src module id and dst module id are all invalid."},
        {CALL(BP_SendAckMsg(nullptr, "x", 1)), BP_ERR_PARAM, "E(2) [BP_SendAckMsg]invalid input params."},
        {CALL(BP_InnerSendSyncMsg(1, 1, nullptr, &stRsp, 0)), BP_ERR_PARAM,
         "E(1) [BP_InnerSendSyncMsg]invalid input param."},
        {CALL(BP_InnerSendSyncMsg(1, 1, &stMsg, nullptr, 0)), BP_ERR_PARAM,
         "E(1) [BP_InnerSendSyncMsg]invalid input param."},
        {CALL(BP_InnerSendSyncMsg(1, 1, &stEmpty, &stRsp, 0)), BP_ERR_PARAM,
         "D(0) [BP_InnerSendSyncMsg]invalid slab buffer."},
        {CALL(BP_InnerSendSyncMsg(NOBODY, 1, &stMsg, &stRsp, 0)), BP_ERR_FAIL,
         "E(2) [BP_ConfigMsgHdr]invalid ulModuleDstID:0x90000006.\nE(1) [BP_InnerSendSyncMsg]fail to config "
         "msg head."},
        {CALL(BP_SendCmdMsg(nullptr, BP_MODULE_ID_IWARE_CMD, 1, 0, &pcAnswer)), BP_ERR_PARAM,
         "E(3) Param illegal pcCmdData:(nil) ppcFullRes:0x"},
        {CALL(BP_SendCmdMsg("x", BP_MODULE_ID_IWARE_CMD, 1, 0, nullptr)), BP_ERR_PARAM,
         "E(3) Param illegal pcCmdData:0x ppcFullRes:(nil)"},
        {CALL(BP_SendCmdMsg("x", NOBODY, 1, 0, &pcAnswer)), BP_ERR_FAIL,
         "E(2) [BP_ConfigMsgHdr]invalid ulModuleDstID:0x90000006.\nE(1) [BP_InnerSendSyncMsg]fail to config "
         "msg head."},
        {CALL(BP_SendCmdMsg(szHuge.c_str(), BP_MODULE_ID_IWARE_CMD, 1, 0, &pcAnswer)), BP_ERR_PARAM,
         "E(1056) fail to BP_InnerSendSyncMsg MsgCode:1\nD(0) [BP_CreatStructMsg]fail to get slab "
         "buffer(buffer size:20040).\nD(0) [BP_InnerSendSyncMsg]invalid slab buffer.\nD(0) "
         "[BP_EraseMsgData]invalid slab buffer."},
        {CALL(pcAnswer == nullptr), true, ""},
    });
    BP_EraseMsgData(&stMsg); // still the handle's after every refusal
}

TEST_F(Refusals, Timers) {
    StartMainThread(); // whoever unregisters needs a module
    using P = BP_TimerParam;
    P stValid = {};
    stValid.ulModuleID = MW_CTRL;
    stValid.ulType = BP_TIMER_CYCLE;
    stValid.lInterval = 1000;
    stValid.pfnComCb = [](uint32_t, uint32_t) { return BP_OK; };
    const auto With = [&](const std::function<void(P *)> &pfnSpoil) {
        P stParam = stValid;
        pfnSpoil(&stParam);
        return BP_RegistTimer(&stParam, &ulID_);
    };
    const std::function<void(P *)> apfnWrong[] = {
        [](P *p) { p->pfnComCb = nullptr; },
        [](P *p) { p->ulCbType = BP_TIMER_CB_EXT; },
        [](P *p) { p->ulCbType = 2; },
        [](P *p) { p->ulType = 6; },
        [](P *p) { p->lInterval = 0; },
        [](P *p) { p->lInterval = -1; },
        [](P *p) { p->ulType = BP_TIMER_ONCE, p->lInterval = 0; },
        [](P *p) { p->ulType = BP_TIMER_DAY, p->usHour = 24; },
        [](P *p) { p->ulType = BP_TIMER_DAY, p->usMinute = 60; },
        [](P *p) { p->ulType = BP_TIMER_DATE, p->usSecond = 60; },
        [](P *p) { p->ulType = BP_TIMER_WEEK, p->usDay = 7; },
        [](P *p) { p->ulType = BP_TIMER_MONTH, p->usDay = 0; },
        [](P *p) { p->ulType = BP_TIMER_MONTH, p->usDay = 32; },
    };
    for (const auto &pfnWrong : apfnWrong) {
        Check({{CALL(With(pfnWrong)), BP_ERR_PARAM, "E(2) [BP_RegistTimer]invalid input params."}});
    }
    Check({
        {CALL(BP_RegistTimer(nullptr, &ulID_)), BP_ERR_PARAM, "E(2) [BP_RegistTimer]invalid input params."},
        {CALL(BP_RegistTimer(&stValid, nullptr)), BP_ERR_PARAM, "E(2) [BP_RegistTimer]invalid input params."},
        {CALL(With([](P *p) { p->ulModuleID = MW_PTZ; })), BP_ERR_NO_MODULE,
         "E(1041) [BP_RegistTimer]invalid module id 2415919107."},
        {CALL(With([](P *p) { p->ulType = BP_TIMER_DATE, p->lStartTime = 1000; })), BP_ERR_TIMER_OVER,
         "E(1075) [BP_RegistTimer]date timer of module id 2415919105: would never fire."},
        {CALL(With([](P *p) { p->ulType = BP_TIMER_DAY, p->lStopTime = 1000; })), BP_ERR_TIMER_OVER,
         "E(1075) [BP_RegistTimer]day timer of module id 2415919105: would never fire."},
        {CALL(BP_UnregistTimer(4711)), BP_ERR_NO_TIMER,
         "E(2) [BP_GetLockTimerByID]there is no working timer.\nW(1074) [BP_UnregistTimerProc]MW_MWARE timerid "
         "4711 is invalid.\nD(0) [BP_UnregistTimer]unregist timer [4711]."},
        {CALL(ulID_), 4711, ""},
    });
    for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
        EXPECT_EQ(BP_RegistTimer(&stValid, &ulID_), BP_OK); // none of the refused ones has taken a place
    }
    SetDebug(false); // the main thread's scan writes there
    Check({{CALL(BP_RegistTimer(&stValid, &ulID_)), BP_ERR_TIMER_FULL,
            "E(1076) [BP_RegistTimer]cycle timer of module id 2415919105: all timers are in use."}});
}
