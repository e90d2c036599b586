#include "bp/bp_timer/timer_regist.h"

#include <initializer_list>

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_timer/notice.h"
#include "bp/bp_timer/timer_calc.h"
#include "bp/bp_timer/timer_pool.h"

static bool BP_IsTimeOfDay(const BP_TimerParam &stParam) {
    return stParam.usHour <= 23 && stParam.usMinute <= 59 && stParam.usSecond <= 59;
}

static bool BP_IsScheduleValid(const BP_TimerParam &stParam) {
    switch (stParam.ulType) {
    case BP_TIMER_ONCE:
    case BP_TIMER_CYCLE:
        return stParam.lInterval > 0;
    case BP_TIMER_WEEK:
        return BP_IsTimeOfDay(stParam) && stParam.usDay <= 6;
    case BP_TIMER_MONTH:
        return BP_IsTimeOfDay(stParam) && stParam.usDay >= 1 && stParam.usDay <= 31;
    case BP_TIMER_DAY:
    case BP_TIMER_DATE:
        return BP_IsTimeOfDay(stParam);
    default:
        return false;
    }
}

static bool BP_HasCallback(const BP_TimerParam &stParam) {
    return (stParam.ulCbType == BP_TIMER_CB_COM && stParam.pfnComCb != nullptr) ||
           (stParam.ulCbType == BP_TIMER_CB_EXT && stParam.pfnExtCb != nullptr);
}

static void BP_FillTimer(BP_Timer *pstTimer, const BP_TimerParam &stParam, uint32_t ulTimerID) {
    BP_Write(pstTimer->ulTimerID, ulTimerID);
    BP_Write(pstTimer->ulModuleID, stParam.ulModuleID);
    BP_Write(pstTimer->ulType, stParam.ulType);
    BP_Write(pstTimer->ulCbType, stParam.ulCbType);
    BP_Write(pstTimer->pfnComCb, stParam.pfnComCb);
    BP_Write(pstTimer->pfnExtCb, stParam.pfnExtCb);
    pstTimer->ulComParam = stParam.ulComParam;
    pstTimer->ulExtParam1 = stParam.ulExtParam1;
    pstTimer->lExtParam2 = stParam.lExtParam2;
    pstTimer->usDay = stParam.usDay;
    BP_Write(pstTimer->lInterval, stParam.lInterval);
    BP_Write(pstTimer->lStartTime, stParam.lStartTime);
    BP_Write(pstTimer->lStopTime, stParam.lStopTime);
    BP_Write(pstTimer->usHour, stParam.usHour);
    BP_Write(pstTimer->usMinute, stParam.usMinute);
    BP_Write(pstTimer->usSecond, stParam.usSecond);
    pstTimer->ulNotices = 0;
    pstTimer->lHoldUntilMs = 0;
    for (BP_TimePair *pstPair : {&pstTimer->stCurExpire, &pstTimer->stNextExpire, &pstTimer->stTimeout}) {
        BP_SetTimePair(pstPair, 0, 0);
    }
}

static uint32_t BP_AddTimer(const BP_TimerParam &stParam, uint32_t *pulTimerID) {
    const BP_SemGuard stGuard(BP_GetProcInfo()->stTimerCtrl.semLock);
    BP_Timer *pstTimer = BP_TakeTimer();
    if (pstTimer == nullptr) {
        return BP_ERR_TIMER_FULL;
    }
    const uint32_t ulTimerID = BP_NewTimerID();
    BP_FillTimer(pstTimer, stParam, ulTimerID);
    BP_CalcTimerParam(pstTimer, 1);
    if (BP_IsTimePairZero(pstTimer->stTimeout)) {
        BP_Write(pstTimer->ulTimerID, 0U);
        BP_ReleaseTimer(pstTimer);
        return BP_ERR_TIMER_OVER;
    }
    BP_LinkTimer(pstTimer);
    *pulTimerID = ulTimerID;
    return BP_OK;
}

uint32_t BP_RegistTimer(const BP_TimerParam *pstParam, uint32_t *pulTimerID) {
    if (pstParam == nullptr || pulTimerID == nullptr || !BP_HasCallback(*pstParam) ||
        !BP_IsScheduleValid(*pstParam)) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    if (BP_GetModuleByID(pstParam->ulModuleID) == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MODULE, "[%s]invalid module id %u.", __func__, pstParam->ulModuleID);
        return BP_ERR_NO_MODULE;
    }
    const uint32_t ulRet = BP_AddTimer(*pstParam, pulTimerID);
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(ulRet, "[%s]%s timer of module id %u: %s.", __func__, BP_TimerTypeName(pstParam->ulType),
                     pstParam->ulModuleID,
                     ulRet == BP_ERR_TIMER_FULL ? "all timers are in use" : "would never fire");
        return ulRet;
    }
    BP_PaceTimerSet();
    return BP_OK;
}

static uint32_t BP_StartInterval(uint32_t ulType, uint32_t ulModuleID, int32_t lInterval,
                                 BP_PfnTimerCom pfnComCb, uint32_t ulComParam, uint32_t *pulTimerID) {
    BP_TimerParam stParam = {};
    stParam.ulModuleID = ulModuleID;
    stParam.ulType = ulType;
    stParam.ulCbType = BP_TIMER_CB_COM;
    stParam.pfnComCb = pfnComCb;
    stParam.ulComParam = ulComParam;
    stParam.lInterval = lInterval;
    return BP_RegistTimer(&stParam, pulTimerID);
}

uint32_t BP_StartCycleTimer(uint32_t ulModuleID, int32_t lInterval, BP_PfnTimerCom pfnComCb,
                            uint32_t ulComParam, uint32_t *pulTimerID) {
    return BP_StartInterval(BP_TIMER_CYCLE, ulModuleID, lInterval, pfnComCb, ulComParam, pulTimerID);
}

uint32_t BP_StartOnceTimer(uint32_t ulModuleID, int32_t lInterval, BP_PfnTimerCom pfnComCb, uint32_t ulComParam,
                           uint32_t *pulTimerID) {
    return BP_StartInterval(BP_TIMER_ONCE, ulModuleID, lInterval, pfnComCb, ulComParam, pulTimerID);
}

uint32_t BP_UnregistTimerProc(uint32_t ulTimerID) {
    const BP_ModuleInfo *pstCaller = BP_GetCurModule();
    if (pstCaller == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find src module.", __func__);
        return BP_ERR_FAIL;
    }
    BP_Timer *pstTimer = BP_GetLockTimerByID(ulTimerID);
    if (pstTimer == nullptr) {
        BP_LOG_WARN(BP_ERR_NO_TIMER, "[%s]%s timerid %u is invalid.", __func__, pstCaller->szModuleName,
                    ulTimerID);
        return BP_ERR_NO_TIMER;
    }
    const uint32_t ulOwnerID = BP_Read(pstTimer->ulModuleID);
    BP_ModuleInfo *pstOwner = BP_GetModuleByID(ulOwnerID);
    if (pstOwner != nullptr) {
        BP_DropNotices(&pstOwner->stTimerQueue, ulTimerID);
        BP_Write(pstTimer->ulTimerID, 0U);
    }
    BP_ReleaseTimer(pstTimer);
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    if (pstOwner == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MODULE, "[%s]invalid module id %u.", __func__, ulOwnerID);
        return BP_ERR_TIMER_OWNER;
    }
    return BP_OK;
}

uint32_t BP_UnregistTimer(uint32_t ulTimerID) {
    BP_LOG_DEBUG("[%s]unregist timer [%u].", __func__, ulTimerID);
    return BP_UnregistTimerProc(ulTimerID);
}
