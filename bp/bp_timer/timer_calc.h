// When a timer expires next.
//
// Once and cycle timers count in wall-clock time: a clock that is set forwards lets them fire at once (a cycle
// timer then catches up one firing an idle pass), one that is set back delays them by as much. Calendar timers
// follow the local time of day; their expiries lie 24 hours or 7 days apart, so a change to or from daylight
// saving moves them by its hour until they are registered anew.
#ifndef BP_BP_TIMER_TIMER_CALC_H
#define BP_BP_TIMER_TIMER_CALC_H

#include <cstdint>

#include "bp/bp_timer/timer_info.h"

// Sets stCurExpire, stNextExpire and stTimeout: ulFirst 1 when the timer is registered, 0 when it has fired. A
// stTimeout of zero means that it does not fire any more. BP_OK, or BP_ERR_PARAM for a null timer. The caller
// holds the pool lock.
uint32_t BP_CalcTimerParam(BP_Timer *pstTimer, uint32_t ulFirst);

void BP_SetTimePair(BP_TimePair *pstPair, int64_t lSec, int32_t lUsec);
bool BP_IsTimePairZero(const BP_TimePair &stPair);

#endif
