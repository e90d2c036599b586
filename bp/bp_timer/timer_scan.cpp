#include "bp/bp_timer/timer_scan.h"

#include <algorithm>
#include <sys/time.h>

#include "bp/bp_clock.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_timer/notice.h"
#include "bp/bp_timer/timer_calc.h"
#include "bp/bp_timer/timer_pool.h"
#include "bp/bp_timer/timer_regist.h"

static bool BP_IsActive(const BP_Timer *pstTimer) {
    return BP_Read(pstTimer->stTimeout.lSec) >= 1 || BP_Read(pstTimer->stTimeout.lUsec) >= 1;
}

static bool BP_IsExpired(const BP_Timer *pstTimer, const struct timeval &stNow) {
    const int64_t lSec = BP_Read(pstTimer->stCurExpire.lSec);
    return lSec < stNow.tv_sec ||
           (lSec == stNow.tv_sec && stNow.tv_usec >= BP_Read(pstTimer->stCurExpire.lUsec));
}

// How long a timer that is behind waits for its next firing. One that is faster than the passes of the default
// pace could never catch up with them, and gets twice its own rate.
static int64_t BP_CatchUpMs(const BP_Timer *pstTimer) {
    const int32_t lInterval = BP_Read(pstTimer->lInterval);
    const bool bFast = BP_Read(pstTimer->ulType) == BP_TIMER_CYCLE && lInterval < BP_MAIN_EPOLL_TIMEOUT;
    return bFast ? std::max(lInterval / 2, 1) : BP_MAIN_EPOLL_TIMEOUT;
}

// Lets the timer fire if it is due and, being behind, not held back beyond lNowMs.
static void BP_CheckTimer(BP_Timer *pstTimer, int64_t lNowMs) {
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    if (!BP_IsActive(pstTimer) || !BP_IsExpired(pstTimer, stNow) || lNowMs < pstTimer->lHoldUntilMs) {
        return;
    }
    BP_TimerExpireProc(pstTimer);
    const bool bBehind = BP_IsActive(pstTimer) && BP_IsExpired(pstTimer, stNow);
    pstTimer->lHoldUntilMs = bBehind ? BP_NowMs() + BP_CatchUpMs(pstTimer) : 0;
}

static void BP_CheckTimers(int64_t lNowMs) {
    BP_ListCtrlOf<BP_Timer> &stCtrl = BP_GetProcInfo()->stTimerCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    BP_Timer *pstTimer = stCtrl.stUsedList.First();
    while (pstTimer != nullptr) {
        BP_Timer *pstNext = stCtrl.stUsedList.Next(pstTimer);
        BP_CheckTimer(pstTimer, lNowMs);
        pstTimer = pstNext;
    }
}

uint32_t BP_CheckTimerExpire() {
    BP_CheckTimers(INT64_MAX);
    return BP_OK;
}

void BP_CheckTimersInPass() {
    BP_CheckTimers(BP_NowMs());
}

uint32_t BP_MsToNextExpiry(uint32_t ulMaxMs) {
    BP_ListCtrlOf<BP_Timer> &stCtrl = BP_GetProcInfo()->stTimerCtrl;
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    const int64_t lNowMs = BP_NowMs();
    int64_t lMinUs = static_cast<int64_t>(ulMaxMs) * 1000;
    const BP_SemGuard stGuard(stCtrl.semLock);
    for (BP_Timer *pstTimer = stCtrl.stUsedList.First(); pstTimer != nullptr;
         pstTimer = stCtrl.stUsedList.Next(pstTimer)) {
        const int64_t lSec = BP_Read(pstTimer->stCurExpire.lSec) - static_cast<int64_t>(stNow.tv_sec);
        if (BP_IsActive(pstTimer) && lSec <= lMinUs / 1000000 + 1) {
            const int64_t lDueUs = lSec * 1000000 + BP_Read(pstTimer->stCurExpire.lUsec) - stNow.tv_usec;
            const int64_t lHoldUs = (pstTimer->lHoldUntilMs - lNowMs) * 1000;
            lMinUs = std::min(lMinUs, std::max(lDueUs, lHoldUs));
        }
    }
    return lMinUs <= 0 ? 0 : static_cast<uint32_t>((lMinUs + 999) / 1000);
}

static uint32_t BP_AdvanceTimer(BP_Timer *pstTimer) {
    const uint32_t ulType = BP_Read(pstTimer->ulType);
    if (ulType != BP_TIMER_ONCE && ulType != BP_TIMER_DATE) {
        return BP_CalcTimerParam(pstTimer, 0);
    }
    BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
    BP_Write(pstTimer->stCurExpire.lSec, 0);
    BP_Write(pstTimer->stNextExpire.lSec, 0);
    return BP_OK;
}

uint32_t BP_TimerExpireProc(BP_Timer *pstTimer) {
    const uint32_t ulModuleID = BP_Read(pstTimer->ulModuleID);
    BP_ModuleInfo *pstModule = BP_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MODULE, "[%s]invalid module id %u.", __func__, ulModuleID);
        return BP_ERR_NO_MODULE;
    }
    if (BP_AdvanceTimer(pstTimer) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to calc timer param.", __func__);
        return BP_ERR_FAIL;
    }
    BP_SlabBuf *pstBuf = BP_MakeNotice(BP_Read(pstTimer->ulTimerID));
    if (pstBuf == nullptr) {
        return BP_ERR_FAIL;
    }
    if (BP_ModuleAddMsg(&pstModule->stTimerQueue, pstBuf) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to add timer msg to module(id %u).", __func__, ulModuleID);
        BP_SlabFreeBuf(pstBuf);
        return BP_ERR_FAIL;
    }
    pstTimer->ulNotices++;
    BP_WakeupRecord(pstModule);
    return BP_OK;
}

// What a callback needs, taken out of the record while its lock was held: the record may be another timer's
// before the callback has run.
struct BP_TimerCall {
    uint32_t ulCbType;
    BP_PfnTimerCom pfnComCb;
    BP_PfnTimerExt pfnExtCb;
    uint32_t ulComParam;
    uint32_t ulExtParam1;
    int32_t lExtParam2;
};

// Takes up one notice of the timer. False if the timer is gone.
static bool BP_GetTimerCall(uint32_t ulTimerID, BP_TimerCall *pstCall) {
    BP_Timer *pstTimer = BP_GetLockTimerByID(ulTimerID);
    if (pstTimer == nullptr) {
        return false;
    }
    pstTimer->ulNotices--;
    *pstCall = {BP_Read(pstTimer->ulCbType), BP_Read(pstTimer->pfnComCb), BP_Read(pstTimer->pfnExtCb),
                pstTimer->ulComParam,        pstTimer->ulExtParam1,       pstTimer->lExtParam2};
    BP_GetProcInfo()->stTimerCtrl.semLock.Post();
    return true;
}

// The timer is still there, will not fire any more, and none of its notices waits for its callback, in
// whichever of its module's queues: registered twice, a module has two.
static bool BP_IsTimerSpent(uint32_t ulTimerID) {
    const BP_SemGuard stGuard(BP_GetProcInfo()->stTimerCtrl.semLock);
    const BP_Timer *pstTimer = BP_FindTimer(ulTimerID);
    return pstTimer != nullptr && BP_IsTimePairZero(pstTimer->stTimeout) && pstTimer->ulNotices == 0;
}

static void BP_HandleNotice(uint32_t ulTimerID) {
    BP_TimerCall stCall;
    if (!BP_GetTimerCall(ulTimerID, &stCall)) {
        return;
    }
    if (stCall.ulCbType == BP_TIMER_CB_COM && stCall.pfnComCb != nullptr) {
        stCall.pfnComCb(ulTimerID, stCall.ulComParam);
    } else if (stCall.ulCbType == BP_TIMER_CB_EXT && stCall.pfnExtCb != nullptr) {
        stCall.pfnExtCb(ulTimerID, stCall.ulExtParam1, stCall.lExtParam2);
    }
    if (BP_IsTimerSpent(ulTimerID)) {
        BP_LOG_DEBUG("[%s]auto unreg timer %u", "BP_ThreadTimerProc", ulTimerID);
        BP_UnregistTimer(ulTimerID);
    }
}

uint32_t BP_ThreadTimerProc(BP_ModuleInfo *pstModule) {
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&pstModule->stTimerQueue, BP_GET_FIRST, 0);
    while (pstBuf != nullptr) {
        if (pstBuf->pucData == nullptr) {
            BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid msg buffer.", __func__);
            return BP_OK;
        }
        BP_HandleNotice(BP_NoticeTimerID(pstBuf));
        BP_SlabFreeBuf(pstBuf);
        pstBuf = BP_ModuleGetMsg(&pstModule->stTimerQueue, BP_GET_FIRST, 0);
    }
    return BP_OK;
}
