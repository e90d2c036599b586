// Notices: what the scan puts into the owning module's timer queue for each expiry. A notice is a buffer of the
// timer class that holds the timer's ID, and never leaves the process.
#ifndef BP_BP_TIMER_NOTICE_H
#define BP_BP_TIMER_NOTICE_H

#include <cstdint>

#include "bp/bp_types.h"

// A notice of the timer; null, with its line, when none is to be had. For the scan.
BP_SlabBuf *BP_MakeNotice(uint32_t ulTimerID);

// The timer of a notice that has data memory.
uint32_t BP_NoticeTimerID(const BP_SlabBuf *pstBuf);

// Gives back the notices of the timer that are in the queue. Any thread.
void BP_DropNotices(BP_ListCtrl *pstQueue, uint32_t ulTimerID);

#endif
