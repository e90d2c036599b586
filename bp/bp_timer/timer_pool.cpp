#include "bp/bp_timer/timer_pool.h"

#include "bp/bp_log/log.h"
#include "bp/bp_module/proc_info.h"

static uint32_t g_ulLastTimerID; // guarded by the pool lock, as is the next one
static uint32_t g_ulLastWorkSeq;

static BP_ListCtrlOf<BP_Timer> &BP_TimerCtrl() {
    return BP_GetProcInfo()->stTimerCtrl;
}

void BP_InitTimerPool() {
    BP_TimerCtrl().Init(BP_MAX_TIMER_NUM);
    for (BP_Timer &stTimer : BP_GetProcInfo()->astTimer) {
        BP_Write(stTimer.ulTimerID, 0U);
        BP_Write(stTimer.ulWorkSeq, 0U);
        stTimer.semTimer.Init(1);
        BP_TimerCtrl().stFreeList.PushBack(&stTimer);
    }
}

BP_Timer *BP_FindTimer(uint32_t ulTimerID) {
    BP_Timer *pstTimer = BP_TimerCtrl().stUsedList.First();
    while (pstTimer != nullptr && BP_Read(pstTimer->ulTimerID) != ulTimerID) {
        pstTimer = BP_TimerCtrl().stUsedList.Next(pstTimer);
    }
    return pstTimer;
}

BP_Timer *BP_GetLockTimerByID(uint32_t ulTimerID) {
    BP_TimerCtrl().semLock.Lock();
    const bool bNoneWorks = BP_TimerCtrl().stUsedList.Empty();
    BP_Timer *pstTimer = BP_FindTimer(ulTimerID);
    if (pstTimer == nullptr) {
        BP_TimerCtrl().semLock.Post();
    }
    if (bNoneWorks) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]there is no working timer.", __func__);
    }
    return pstTimer;
}

BP_Timer *BP_TakeTimer() {
    return BP_TimerCtrl().stFreeList.PopFront();
}

uint32_t BP_NewTimerID() {
    do {
        g_ulLastTimerID++;
    } while (g_ulLastTimerID == 0 || BP_FindTimer(g_ulLastTimerID) != nullptr);
    return g_ulLastTimerID;
}

// The places have been used up: numbers them anew.
static void BP_RenumberTimers() {
    g_ulLastWorkSeq = 0;
    BP_Timer *pstTimer = BP_TimerCtrl().stUsedList.First();
    while (pstTimer != nullptr) {
        BP_Write(pstTimer->ulWorkSeq, ++g_ulLastWorkSeq);
        pstTimer = BP_TimerCtrl().stUsedList.Next(pstTimer);
    }
}

void BP_LinkTimer(BP_Timer *pstTimer) {
    if (g_ulLastWorkSeq == UINT32_MAX) {
        BP_RenumberTimers();
    }
    BP_Write(pstTimer->ulWorkSeq, ++g_ulLastWorkSeq);
    BP_TimerCtrl().stUsedList.PushBack(pstTimer);
}

void BP_ReleaseTimer(BP_Timer *pstTimer) {
    BP_Write(pstTimer->ulWorkSeq, 0U);
    if (BP_List<BP_Timer>::Linked(pstTimer)) {
        BP_List<BP_Timer>::Remove(pstTimer);
    }
    BP_TimerCtrl().stFreeList.PushFront(pstTimer);
}
