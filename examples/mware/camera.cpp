#include "examples/mware/modules.h"

#include <cstring>

static constexpr int32_t MW_PTZ_LIMIT = 90;
static constexpr int32_t MW_PTZ_STEP = 3;

// Written by one module's thread each, read by the commands.
static std::atomic<int32_t> g_lPosition;
static std::atomic<uint32_t> g_ulAlarmNum;
static std::atomic<int32_t> g_lDirection{1};

static uint32_t g_ulCtrlID;
static uint32_t g_ulPtzID;
static uint32_t g_ulAlmID;

#define MW_LOG_DEBUG(ulModuleID, ...)                                                                          \
    BP_WriteLog(BP_LOG_LEVEL_DEBUG, 0, ulModuleID, __FILE__, __LINE__, __VA_ARGS__)

// The number in a message that carries just one.
static bool MW_GetNumber(const BP_StructMsg *pstMsg, int32_t *plNumber) {
    uint8_t *pucData = nullptr;
    uint32_t ulLen = 0;
    if (BP_DecodeStructMsgData(pstMsg, &pucData, &ulLen) != BP_OK || ulLen != sizeof(*plNumber)) {
        return false;
    }
    memcpy(plNumber, pucData, sizeof(*plNumber));
    return true;
}

static uint32_t MW_CtrlTick(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)pstMsg;
    (void)ulParam;
    const int32_t lMove = MW_PTZ_STEP * BP_Read(g_lDirection);
    MW_LOG_DEBUG(g_ulCtrlID, "[%s]turn the head by %d.", __func__, lMove);
    return BP_PostMsg(g_ulPtzID, MW_MSG_MOVE, &lMove, sizeof(lMove));
}

static uint32_t MW_PtzMove(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)ulParam;
    int32_t lMove = 0;
    if (!MW_GetNumber(pstMsg, &lMove)) {
        return BP_ERR_PARAM;
    }
    const int32_t lPosition = BP_Read(g_lPosition) + lMove;
    BP_Write(g_lPosition, lPosition);
    MW_LOG_DEBUG(g_ulPtzID, "[%s]position is %d.", __func__, lPosition);
    if (lPosition > -MW_PTZ_LIMIT && lPosition < MW_PTZ_LIMIT) {
        return BP_OK;
    }
    return BP_PostMsg(g_ulAlmID, MW_MSG_LIMIT, &lPosition, sizeof(lPosition));
}

static uint32_t MW_AlmLimit(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)ulParam;
    int32_t lPosition = 0;
    if (!MW_GetNumber(pstMsg, &lPosition)) {
        return BP_ERR_PARAM;
    }
    g_ulAlarmNum.fetch_add(1, std::memory_order_relaxed);
    BP_Write(g_lDirection, lPosition > 0 ? -1 : 1);
    MW_LOG_DEBUG(g_ulAlmID, "[%s]end of travel at %d.", __func__, lPosition);
    return BP_OK;
}

static uint32_t MW_DisplayPtz(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_AnswerPrint(pstAnswer, "position %d of -%d to %d degrees, turning %s\n", BP_Read(g_lPosition),
                   MW_PTZ_LIMIT, MW_PTZ_LIMIT, BP_Read(g_lDirection) > 0 ? "right" : "left");
    return BP_OK;
}

static uint32_t MW_DisplayAlarm(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_AnswerPrint(pstAnswer, "%u alarms\n", BP_Read(g_ulAlarmNum));
    return BP_OK;
}

// words, function, parameter
static const BP_CmdDef g_astCmd[] = {
    {{{BP_CMD_TITLE, "ptz", "the pan-tilt head"}}, MW_DisplayPtz, 0},
    {{{BP_CMD_TITLE, "alarm", "alarms raised"}}, MW_DisplayAlarm, 0},
};

// name, message code, handler, where its ID is kept
static const MW_Module g_astModule[] = {
    {"MW_CTRL", MW_MSG_TICK, MW_CtrlTick, &g_ulCtrlID},
    {"MW_PTZ", MW_MSG_MOVE, MW_PtzMove, &g_ulPtzID},
    {"MW_ALM", MW_MSG_LIMIT, MW_AlmLimit, &g_ulAlmID},
};

uint32_t MW_StartCamera() {
    uint32_t ulRet = BP_OK;
    for (const MW_Module &stModule : g_astModule) {
        ulRet = ulRet == BP_OK ? MW_StartModule(stModule) : ulRet;
    }
    for (const BP_CmdDef &stCmd : g_astCmd) {
        ulRet = ulRet == BP_OK ? BP_RegistCmd(&stCmd) : ulRet;
    }
    if (ulRet != BP_OK) {
        return ulRet;
    }
    // Last, because from here on messages arrive.
    return BP_RegistModule("MW_MWARE", 1, &BP_GetProcInfo()->ulMainModuleID);
}

void MW_TickCamera() {
    BP_PostMsg(g_ulCtrlID, MW_MSG_TICK, nullptr, 0);
}
