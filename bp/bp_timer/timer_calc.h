// When a timer expires next.
//
// Expiries are wall-clock times. When the clock is set forwards, what is due by then fires at once, and a
// periodic timer catches up one firing a pass (timer_scan.h); when it is set back, timers wait that much
// longer.
//
// A time of day is the zone's standard time, all year: while daylight saving is on, the clock on the wall is
// ahead of it by the zone's shift, an hour or half an hour. A month timer for a day that a month lacks rolls
// over into the next month and stays on the day it came to: 31 January, 3 March, 3 April.
//
// Expiries end with what 32 bits of seconds hold, in January 2038: a timer that would fire later is refused,
// and one that reaches it ends with a WARN line. A clock that is set beyond it for a moment therefore ends
// every periodic timer of the process; they must be registered again.
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
