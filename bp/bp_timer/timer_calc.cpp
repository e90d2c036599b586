#include "bp/bp_timer/timer_calc.h"

#include <ctime>
#include <sys/time.h>

#include "bp/bp_log/log.h"

static constexpr char g_szCalcFunc[] = "BP_CalcTimerParam";
static constexpr time_t BP_SEC_PER_DAY = 86400;
static constexpr time_t BP_SEC_PER_WEEK = 7 * BP_SEC_PER_DAY;
static constexpr int64_t BP_LAST_SEC = INT32_MAX; // stands for all that comes behind it
static constexpr int32_t BP_USEC_PER_SEC = 1000000;
static constexpr size_t BP_CTIME_SIZE = 26;

const char *BP_TimerTypeName(uint32_t ulType) {
    static constexpr const char *apcName[] = {"once", "cycle", "day", "week", "month", "date"};
    return ulType <= BP_TIMER_DATE ? apcName[ulType] : "?";
}

void BP_SetTimePair(BP_TimePair *pstPair, int64_t lSec, int32_t lUsec) {
    BP_Write(pstPair->lSec, static_cast<int32_t>(lSec < BP_LAST_SEC ? lSec : BP_LAST_SEC));
    BP_Write(pstPair->lUsec, lUsec);
}

bool BP_IsTimePairZero(const BP_TimePair &stPair) {
    return BP_Read(stPair.lSec) == 0 && BP_Read(stPair.lUsec) == 0;
}

static void BP_SetSum(BP_TimePair *pstSum, int64_t lSec, int32_t lUsec, const BP_TimePair &stAdd) {
    lSec += BP_Read(stAdd.lSec);
    lUsec += BP_Read(stAdd.lUsec);
    if (lUsec >= BP_USEC_PER_SEC) {
        lUsec -= BP_USEC_PER_SEC;
        lSec++;
    }
    BP_SetTimePair(pstSum, lSec, lUsec);
}

// The clock's time, with the interval as timeout and the sum of both as current expiry.
static struct timeval BP_StartInterval(BP_Timer *pstTimer) {
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    const uint32_t ulInterval = static_cast<uint32_t>(BP_Read(pstTimer->lInterval));
    BP_SetTimePair(&pstTimer->stTimeout, ulInterval / 1000, static_cast<int32_t>(ulInterval % 1000 * 1000));
    BP_SetSum(&pstTimer->stCurExpire, stNow.tv_sec, static_cast<int32_t>(stNow.tv_usec), pstTimer->stTimeout);
    return stNow;
}

// An expiry that cannot be told from any later one: such a timer is over. One that worked until then ends
// unexpectedly, be it because the clock was wrong for a moment.
static bool BP_EndIfTooLate(BP_Timer *pstTimer, uint32_t ulFirst) {
    if (BP_Read(pstTimer->stCurExpire.lSec) != BP_LAST_SEC) {
        return false;
    }
    BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
    if (ulFirst != 1) {
        BP_LOG_WARN(0, "[%s]%s timer %u of module id %x ends: its next expiry is beyond January 2038.",
                    g_szCalcFunc, BP_TimerTypeName(BP_Read(pstTimer->ulType)), BP_Read(pstTimer->ulTimerID),
                    BP_Read(pstTimer->ulModuleID));
    }
    return true;
}

static void BP_CalcOnce(BP_Timer *pstTimer, uint32_t ulFirst) {
    if (ulFirst != 1) {
        BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
        return;
    }
    BP_StartInterval(pstTimer);
    BP_SetTimePair(&pstTimer->stNextExpire, 0, 0);
    if (BP_EndIfTooLate(pstTimer, ulFirst)) {
        return;
    }
    BP_LOG_DEBUG("[%s]once timer %u timeout interal:%ld-%ld", g_szCalcFunc, BP_Read(pstTimer->ulTimerID),
                 static_cast<long>(BP_Read(pstTimer->stTimeout.lSec)),
                 static_cast<long>(BP_Read(pstTimer->stTimeout.lUsec)));
}

static void BP_CalcCycle(BP_Timer *pstTimer, uint32_t ulFirst) {
    if (ulFirst == 1) {
        const struct timeval stNow = BP_StartInterval(pstTimer);
        BP_LOG_DEBUG("[%s]cycle timer %u timeout interal:%ld-%ld %ld-%ld %ld-%ld", g_szCalcFunc,
                     BP_Read(pstTimer->ulTimerID), static_cast<long>(BP_Read(pstTimer->stTimeout.lSec)),
                     static_cast<long>(BP_Read(pstTimer->stTimeout.lUsec)), static_cast<long>(stNow.tv_sec),
                     static_cast<long>(stNow.tv_usec), static_cast<long>(BP_Read(pstTimer->stCurExpire.lSec)),
                     static_cast<long>(BP_Read(pstTimer->stCurExpire.lUsec)));
    } else {
        BP_SetTimePair(&pstTimer->stCurExpire, BP_Read(pstTimer->stNextExpire.lSec),
                       BP_Read(pstTimer->stNextExpire.lUsec));
    }
    if (BP_EndIfTooLate(pstTimer, ulFirst)) {
        return;
    }
    BP_SetSum(&pstTimer->stNextExpire, BP_Read(pstTimer->stCurExpire.lSec),
              BP_Read(pstTimer->stCurExpire.lUsec), pstTimer->stTimeout);
}

// The local date of lBase at the timer's time of day, in standard time. The fields become what mktime makes of
// them.
static time_t BP_AtTimeOfDay(const BP_Timer *pstTimer, time_t lBase, struct tm *pstTm) {
    localtime_r(&lBase, pstTm);
    pstTm->tm_hour = BP_Read(pstTimer->usHour);
    pstTm->tm_min = BP_Read(pstTimer->usMinute);
    pstTm->tm_sec = BP_Read(pstTimer->usSecond);
    pstTm->tm_isdst = 0;
    return mktime(pstTm);
}

static time_t BP_FirstDay(const BP_Timer *pstTimer, time_t lNow, time_t lBase) {
    struct tm stTm;
    const time_t lTime = BP_AtTimeOfDay(pstTimer, lBase, &stTm);
    return lTime <= lNow ? lTime + BP_SEC_PER_DAY : lTime;
}

static time_t BP_FirstWeek(const BP_Timer *pstTimer, time_t lNow, time_t lBase) {
    struct tm stTm;
    struct tm stToday;
    time_t lTime = BP_AtTimeOfDay(pstTimer, lBase, &stTm);
    localtime_r(&lNow, &stToday);
    const bool bToday =
        stToday.tm_year == stTm.tm_year && stToday.tm_mon == stTm.tm_mon && stToday.tm_mday == stTm.tm_mday;
    if (bToday && stToday.tm_wday == pstTimer->usDay && lTime <= lNow) {
        lTime += BP_SEC_PER_WEEK;
    }
    if (stTm.tm_wday != pstTimer->usDay) {
        lTime += pstTimer->usDay < stTm.tm_wday ? BP_SEC_PER_WEEK : 0;
        lTime += (pstTimer->usDay - stTm.tm_wday) * BP_SEC_PER_DAY;
    }
    return lTime;
}

static void BP_NextMonth(struct tm *pstTm) {
    if (++pstTm->tm_mon == 12) {
        pstTm->tm_mon = 0;
        pstTm->tm_year++;
    }
}

// A day that the month does not have rolls over into the next one.
static time_t BP_FirstMonth(const BP_Timer *pstTimer, time_t lNow, time_t lBase) {
    struct tm stTm;
    localtime_r(&lBase, &stTm);
    const int lBaseDay = stTm.tm_mday;
    stTm.tm_mday = pstTimer->usDay;
    stTm.tm_hour = BP_Read(pstTimer->usHour);
    stTm.tm_min = BP_Read(pstTimer->usMinute);
    stTm.tm_sec = BP_Read(pstTimer->usSecond);
    stTm.tm_isdst = 0;
    if (pstTimer->usDay < lBaseDay) {
        BP_NextMonth(&stTm);
    }
    if (mktime(&stTm) <= lNow) {
        BP_NextMonth(&stTm);
    }
    return mktime(&stTm);
}

static time_t BP_FirstCalendar(const BP_Timer *pstTimer, time_t lNow) {
    const time_t lStart = BP_Read(pstTimer->lStartTime);
    const time_t lBase = lNow < lStart ? lStart : lNow;
    switch (BP_Read(pstTimer->ulType)) {
    case BP_TIMER_DAY:
        return BP_FirstDay(pstTimer, lNow, lBase);
    case BP_TIMER_WEEK:
        return BP_FirstWeek(pstTimer, lNow, lBase);
    default:
        return BP_FirstMonth(pstTimer, lNow, lBase);
    }
}

static time_t BP_NextCalendar(const BP_Timer *pstTimer, time_t lCurrent) {
    switch (BP_Read(pstTimer->ulType)) {
    case BP_TIMER_DAY:
        return lCurrent + BP_SEC_PER_DAY;
    case BP_TIMER_WEEK:
        return lCurrent + BP_SEC_PER_WEEK;
    default: {
        struct tm stTm;
        localtime_r(&lCurrent, &stTm);
        BP_NextMonth(&stTm);
        return mktime(&stTm);
    }
    }
}

static void BP_LogCalendar(const BP_Timer *pstTimer) {
    char szCur[BP_CTIME_SIZE] = {};
    char szNext[BP_CTIME_SIZE] = {};
    const time_t lCur = BP_Read(pstTimer->stCurExpire.lSec);
    const time_t lNext = BP_Read(pstTimer->stNextExpire.lSec);
    ctime_r(&lCur, szCur);
    ctime_r(&lNext, szNext);
    const uint32_t ulType = BP_Read(pstTimer->ulType);
    const char *pcGap = ulType == BP_TIMER_MONTH ? " " : "  ";
    const char *pcName = BP_TimerTypeName(ulType);
    const uint32_t ulTimerID = BP_Read(pstTimer->ulTimerID);
    BP_LOG_DEBUG("[%s]%s timer %u cur%sexpire:%s", g_szCalcFunc, pcName, ulTimerID, pcGap, szCur);
    BP_LOG_DEBUG("[%s]%s timer %u next expire:%s", g_szCalcFunc, pcName, ulTimerID, szNext);
}

static void BP_CalcCalendar(BP_Timer *pstTimer, uint32_t ulFirst) {
    const time_t lNow = time(nullptr);
    const time_t lStop = BP_Read(pstTimer->lStopTime);
    if (lStop != 0 && lNow >= lStop) {
        BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
        return;
    }
    if (ulFirst == 1) {
        BP_SetTimePair(&pstTimer->stCurExpire, BP_FirstCalendar(pstTimer, lNow), 0);
    } else {
        BP_Write(pstTimer->stCurExpire.lSec, BP_Read(pstTimer->stNextExpire.lSec));
    }
    const time_t lCurrent = BP_Read(pstTimer->stCurExpire.lSec);
    if (lStop != 0 && lCurrent >= lStop) {
        BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
        return;
    }
    if (BP_EndIfTooLate(pstTimer, ulFirst)) {
        return;
    }
    if (lCurrent > lNow) {
        BP_SetTimePair(&pstTimer->stTimeout, lCurrent - lNow, 0);
    } else {
        BP_SetTimePair(&pstTimer->stTimeout, 0, 1); // behind, but not over: the scan must go on looking at it
    }
    BP_SetTimePair(&pstTimer->stNextExpire, BP_NextCalendar(pstTimer, lCurrent), 0);
    BP_LogCalendar(pstTimer);
}

static void BP_CalcDate(BP_Timer *pstTimer, uint32_t ulFirst) {
    BP_SetTimePair(&pstTimer->stTimeout, 0, 0);
    const time_t lNow = time(nullptr);
    if (ulFirst != 1 || lNow >= BP_Read(pstTimer->lStartTime)) {
        return;
    }
    struct tm stTm;
    const time_t lTime = BP_AtTimeOfDay(pstTimer, BP_Read(pstTimer->lStartTime), &stTm);
    BP_SetTimePair(&pstTimer->stCurExpire, lTime, 0);
    if (lTime <= lNow || lTime >= BP_LAST_SEC) {
        return;
    }
    BP_SetTimePair(&pstTimer->stTimeout, lTime - lNow, 0);
    BP_SetTimePair(&pstTimer->stNextExpire, 0, 0);
    char szTime[BP_CTIME_SIZE] = {};
    ctime_r(&lTime, szTime);
    BP_LOG_DEBUG("[%s]date timer %u expire:%s", g_szCalcFunc, BP_Read(pstTimer->ulTimerID), szTime);
}

uint32_t BP_CalcTimerParam(BP_Timer *pstTimer, uint32_t ulFirst) {
    if (pstTimer == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    switch (BP_Read(pstTimer->ulType)) {
    case BP_TIMER_ONCE:
        BP_CalcOnce(pstTimer, ulFirst);
        break;
    case BP_TIMER_CYCLE:
        BP_CalcCycle(pstTimer, ulFirst);
        break;
    case BP_TIMER_DAY:
    case BP_TIMER_WEEK:
    case BP_TIMER_MONTH:
        BP_CalcCalendar(pstTimer, ulFirst);
        break;
    case BP_TIMER_DATE:
        BP_CalcDate(pstTimer, ulFirst);
        break;
    default:
        break;
    }
    return BP_OK;
}
