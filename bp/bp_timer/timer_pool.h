// The process's pool of timer records: 64 of them, each free or working.
#ifndef BP_BP_TIMER_TIMER_POOL_H
#define BP_BP_TIMER_TIMER_POOL_H

#include <cstdint>

#include "bp/bp_timer/timer_info.h"

// Puts all records on the free list. Start-up only.
void BP_InitTimerPool();

// The working timer with that ID, the pool lock then being held for the caller to give back; or null, with the
// lock not held. An ERROR line only when no timer works at all. Not for a thread that holds the lock.
BP_Timer *BP_GetLockTimerByID(uint32_t ulTimerID);

// The same without lock or line, for a caller that holds the lock.
BP_Timer *BP_FindTimer(uint32_t ulTimerID);

// Between the lists; the caller holds the lock. A free record for a new timer, null when there is none; a taken
// record to the end of the working list under an ID that is not 0, no working timer's, and has not been used
// for a long time; a record back to the head of the free list, from the working list or from the caller.
BP_Timer *BP_TakeTimer();
uint32_t BP_NewTimerID();
void BP_LinkTimer(BP_Timer *pstTimer);
void BP_ReleaseTimer(BP_Timer *pstTimer);

#endif
