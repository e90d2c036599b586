#include "examples/mware/modules.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

static constexpr int32_t MW_PTZ_LIMIT = 90;
static constexpr int32_t MW_PTZ_STEP = 3;
static constexpr useconds_t MW_STORE_USEC = 10000;
static constexpr uint16_t MW_RESET_HOUR = 3;
static constexpr uint32_t MW_FLOOD_MAX = 1000000;

// Submodules of MW_PTZ in the log and, of the first, service types: "debug MW_PTZ move" switches both, "debug
// MW_PTZ move left" one of them. Their IDs are no other module's.
static constexpr uint32_t MW_LOG_PTZ_LEFT = 0x01050001;
static constexpr uint32_t MW_LOG_PTZ_RIGHT = 0x01050002;
static constexpr uint32_t MW_LOG_PTZ_LIMIT = 0x01050003;

// Written by one module's thread each, read by the commands.
static std::atomic<int32_t> g_lPosition;
static std::atomic<uint32_t> g_ulAlarmNum;
static std::atomic<int32_t> g_lDirection{1};

static uint32_t g_ulCtrlID;
static uint32_t g_ulPtzID;
static uint32_t g_ulAlmID;
static uint32_t g_ulStoreID;

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

static uint32_t MW_TurnHead() {
    const int32_t lMove = MW_PTZ_STEP * BP_Read(g_lDirection);
    MW_LOG_DEBUG(g_ulCtrlID, "[%s]turn the head by %d.", __func__, lMove);
    return BP_PostMsg(g_ulPtzID, MW_MSG_MOVE, &lMove, sizeof(lMove));
}

// A cycle timer of MW_CTRL.
static uint32_t MW_OnTick(uint32_t ulTimerID, uint32_t ulParam) {
    (void)ulTimerID;
    (void)ulParam;
    return MW_TurnHead();
}

// The intercom's process may tell us that time passes, too.
static uint32_t MW_CtrlTick(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)pstMsg;
    (void)ulParam;
    return MW_TurnHead();
}

// Sends so many messages to the slow store, if there are so many above the buffers' reserve, as a fault would;
// the store then works them off.
static uint32_t MW_CtrlFlood(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)ulParam;
    int32_t lLeft = 0;
    if (!MW_GetNumber(pstMsg, &lLeft)) {
        return BP_ERR_PARAM;
    }
    while (lLeft-- > 0 && BP_PostMsg(g_ulStoreID, MW_MSG_STORE, nullptr, 0) == BP_OK) {
    }
    return BP_OK;
}

static uint32_t MW_Store(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    (void)pstMsg;
    (void)ulParam;
    usleep(MW_STORE_USEC);
    return BP_OK;
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
    MW_LOG_DEBUG(lMove < 0 ? MW_LOG_PTZ_LEFT : MW_LOG_PTZ_RIGHT, "[%s]position is %d.", __func__, lPosition);
    if (lPosition > -MW_PTZ_LIMIT && lPosition < MW_PTZ_LIMIT) {
        return BP_OK;
    }
    MW_LOG_DEBUG(MW_LOG_PTZ_LIMIT, "[%s]end of travel at %d.", __func__, lPosition);
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
    MW_LOG_DEBUG(g_ulAlmID, "[%s]alarm %u.", __func__, BP_Read(g_ulAlarmNum));
    return BP_OK;
}

// A day timer of MW_ALM, by the other kind of callback: a new day begins with ulCount alarms.
static uint32_t MW_OnNewDay(uint32_t ulTimerID, uint32_t ulCount, int32_t lUnused) {
    (void)ulTimerID;
    (void)lUnused;
    BP_Write(g_ulAlarmNum, ulCount);
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

static uint32_t MW_StartFlood(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    const int32_t lNum = static_cast<int32_t>(std::min(pstArgs->astArg[0].ulValue, MW_FLOOD_MAX));
    BP_AnswerPrint(pstAnswer, "flood started: see display slab now and in some seconds,\nand %s\n",
                   BP_SLAB_DUMP_PATH);
    return BP_PostMsg(g_ulCtrlID, MW_MSG_FLOOD, &lNum, sizeof(lNum));
}

// words, function, parameter
static const BP_CmdDef g_astCmd[] = {
    {{{BP_CMD_TITLE, "ptz", "the pan-tilt head"}}, MW_DisplayPtz, 0},
    {{{BP_CMD_TITLE, "alarm", "alarms raised"}}, MW_DisplayAlarm, 0},
    {{{BP_CMD_TITLE | BP_CMD_EFFECT, "flood", "sends much at once to the slow store"},
      {BP_CMD_INTEGER, "count", "messages; 1000 make a shortage of buffers"}},
     MW_StartFlood,
     0},
};

// name, message code, handler, where its ID is kept
static const MW_Module g_astModule[] = {
    {"MW_CTRL", MW_MSG_TICK, MW_CtrlTick, &g_ulCtrlID},
    {"MW_PTZ", MW_MSG_MOVE, MW_PtzMove, &g_ulPtzID},
    {"MW_ALM", MW_MSG_LIMIT, MW_AlmLimit, &g_ulAlmID},
    {"MW_STOR_MCP", MW_MSG_STORE, MW_Store, &g_ulStoreID},
};

static uint32_t MW_StartTimers() {
    uint32_t ulTimerID = 0;
    const uint32_t ulRet = BP_StartCycleTimer(g_ulCtrlID, MW_TICK_MS, MW_OnTick, 0, &ulTimerID);
    BP_TimerParam stNewDay = {};
    stNewDay.ulModuleID = g_ulAlmID;
    stNewDay.ulType = BP_TIMER_DAY;
    stNewDay.ulCbType = BP_TIMER_CB_EXT;
    stNewDay.pfnExtCb = MW_OnNewDay;
    stNewDay.usHour = MW_RESET_HOUR;
    return ulRet == BP_OK ? BP_RegistTimer(&stNewDay, &ulTimerID) : ulRet;
}

uint32_t MW_StartCamera() {
    uint32_t ulRet = BP_OK;
    for (const MW_Module &stModule : g_astModule) {
        ulRet = ulRet == BP_OK ? MW_StartModule(stModule) : ulRet;
    }
    ulRet = ulRet == BP_OK ? MW_StartLogModule("MW_PTZ move left", MW_LOG_PTZ_LEFT) : ulRet;
    ulRet = ulRet == BP_OK ? MW_StartLogModule("MW_PTZ move right", MW_LOG_PTZ_RIGHT) : ulRet;
    ulRet = ulRet == BP_OK ? MW_StartLogModule("MW_PTZ limit", MW_LOG_PTZ_LIMIT) : ulRet;
    for (const BP_CmdDef &stCmd : g_astCmd) {
        ulRet = ulRet == BP_OK ? BP_RegistCmd(&stCmd) : ulRet;
    }
    if (ulRet == BP_OK) {
        ulRet = BP_RegistMsgProc(g_ulCtrlID, BP_PROC_TABLE_NORMAL, MW_MSG_FLOOD, MW_CtrlFlood, 0);
    }
    if (ulRet == BP_OK) {
        ulRet = MW_StartTimers();
    }
    // The main module comes last, because from here on messages arrive and timers fire.
    return ulRet == BP_OK ? BP_RegistModule("MW_MWARE", 1, &BP_GetProcInfo()->ulMainModuleID) : ulRet;
}
