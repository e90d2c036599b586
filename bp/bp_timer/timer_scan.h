// Timers fire in two steps in two threads: the main thread's scan advances an expired timer and puts a notice
// with its ID into the owning module's timer queue; the module's thread takes the notice and calls the
// callback.
//
// A notice names a timer by its ID, and IDs are not used again soon, so a notice whose timer is gone by then is
// dropped.
#ifndef BP_BP_TIMER_TIMER_SCAN_H
#define BP_BP_TIMER_TIMER_SCAN_H

#include <cstdint>

#include "bp/bp_module/module_info.h"
#include "bp/bp_timer/timer_info.h"

// Looks at all working timers once and lets those fire whose current expiry has passed, each at most once.
// Always BP_OK. Main thread only.
uint32_t BP_CheckTimerExpire();

// The same in a pass of the main thread, which at the prompt pace may follow another at once: a timer that is
// behind fires every BP_MAIN_EPOLL_TIMEOUT milliseconds, as at the default pace, until it has caught up; one of
// a shorter interval at twice its rate.
void BP_CheckTimersInPass();

// The milliseconds until the first of the working timers fires in a pass, rounded up; ulMaxMs if none does
// before. Any thread.
uint32_t BP_MsToNextExpiry(uint32_t ulMaxMs);

// Advances the timer and sends its notice. BP_OK; BP_ERR_NO_MODULE when the owner is not registered, and the
// timer is as it was; BP_ERR_FAIL for any other failure, and this expiry is lost. The caller holds the pool
// lock.
uint32_t BP_TimerExpireProc(BP_Timer *pstTimer);

// Handles the module's timer notices until there are none, in the calling thread, which is the module's own. A
// timer that does not fire any more is unregistered when the last of its notices has been handled. BP_OK, or
// BP_ERR_PARAM for a null record.
uint32_t BP_ThreadTimerProc(BP_ModuleInfo *pstModule);

#endif
