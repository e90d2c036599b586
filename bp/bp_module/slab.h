// Slab pools: fixed-size buffers for messages and timer notices, carved once at start-up out of one block.
//
// Ownership: BP_SlabGetBuf gives the buffer to the caller; a queue that takes it owns it; every road ends in
//            BP_SlabFreeBuf. Free buffers are reused last in, first out.
// Reserve:   the small message classes keep a few buffers back for the console's process and the command
// modules,
//            so that an engineer still gets through to a process that has run short. Everybody else is refused
//            at the threshold, and the first refusal is reported (g_stBPbuffLogMgr).
// Threads:   any thread. What waits is a caller who is refused, while another one writes the dumps; all else
//            takes the class lock for a list operation, and to free a queued buffer its queue's.
#ifndef BP_BP_MODULE_SLAB_H
#define BP_BP_MODULE_SLAB_H

#include <atomic>
#include <cstdint>
#include <pthread.h>

#include "bp/bp_module/buf_mgr.h"
#include "bp/bp_types.h"

constexpr uint32_t BP_SLAB_TYPE_MSG = 0;
constexpr uint32_t BP_SLAB_TYPE_TIMER = 1;

// Latches of the shortage report. A latch that is set keeps further shortages quiet; the timer latch opens
// again once timer buffers are plentiful, the message latch stays for the life of the process.
enum { BP_BUF_LOG_TIMER, BP_BUF_LOG_MSG, BP_BUF_LOG_NUM };

struct BP_BufLogMgr {
    std::atomic<uint32_t> aulLatch[BP_BUF_LOG_NUM];
    pthread_mutex_t stLock; // from the test of the latches to their setting, so that one shortage reports once
};

extern BP_BufLogMgr g_stBPbuffLogMgr;

// Builds the pools from g_astSlabConfig. Once, by start-up. BP_OK or BP_ERR_FAIL.
uint32_t BP_InitBufManager();

// Whether the threads of a module or process of that name may use the reserve.
bool BP_IsExemptName(const char *pcName);

// Takes a buffer of at least ulSize bytes for a message (BP_SLAB_TYPE_MSG) or a notice (BP_SLAB_TYPE_TIMER),
// with usLen set to ulSize. Null when no class of that type is large enough, the class is down to its reserve
// and the caller is not exempt, or it is empty; callers report their own failure.
BP_SlabBuf *BP_SlabGetBuf(uint32_t ulSize, uint32_t ulType);

// Gives a buffer back, which must be the caller's. One that still sits in a queue is taken out of it first;
// that is safe only while no thread reads the queue, since a buffer that its reader has taken out looks like
// any other that a thread holds, and is given back under the reader's hands. Lists and counts stay right even
// then: the reader's own free is reported as the second one. BP_OK, also (with a WARN line) for a buffer that
// is free already; BP_ERR_PARAM for a null or malformed header.
uint32_t BP_SlabFreeBuf(BP_SlabBuf *pstSlabBuf);

// 1 when a caller without exemption may take a buffer of the class, else 0, with a DEBUG line. Advisory under
// contention: the count is read without the class lock.
uint32_t BP_IsSlabBufAvaliable(uint32_t ulClass);

// The number by which a time-out mark finds the message that the buffer holds now.
uint32_t BP_SlabMarkSeq(const BP_SlabBuf *pstSlabBuf);

// Sets BP_BUF_TIMEOUT unless the buffer was given back, handled, kept or sent on since it had that mark number.
void BP_SlabMarkTimeout(BP_SlabBuf *pstSlabBuf, uint32_t ulMarkSeq);

// Later marks for this number are ignored. Clears BP_BUF_TIMEOUT and returns whether it was set; false, with
// nothing done, if the buffer has another number by now.
bool BP_SlabEndMark(BP_SlabBuf *pstSlabBuf, uint32_t ulMarkSeq);

// Makes a received message one that can be sent: earlier marks are ignored, and it has not come out of a queue.
// For the thread that holds it.
void BP_SlabRenewMark(BP_SlabBuf *pstSlabBuf);

// Writes the three dumps of dumps.h now, whatever the latches say. Any thread.
void BP_WriteDumps();

// State of one class, taken at one moment. BP_OK, or BP_ERR_PARAM for a class that does not exist.
struct BP_SlabInfo {
    uint32_t ulSize;
    uint32_t ulTotal;
    uint32_t ulFreeNum;
    uint32_t ulUsedNum;
};
uint32_t BP_GetSlabInfo(uint32_t ulClass, BP_SlabInfo *pstInfo);

#endif
