// Slab pools: fixed-size buffers for messages and timer notices, carved once at start-up out of one block.
//
// Ownership: BP_SlabGetBuf gives the buffer to the caller; a queue that takes it owns it; every road ends in
//            BP_SlabFreeBuf. Free buffers are reused last in, first out.
// Reserve:   the small message classes keep a few buffers back for the console's process and the command
// modules,
//            so that an engineer still gets through to a process that has run short. Everybody else is refused
//            at the threshold, and the first refusal is reported (g_stBPbuffLogMgr).
// Threads:   any thread, no waiting beyond the class lock, which is held for a list operation only.
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

// Gives a buffer back. A buffer that still sits in a queue is taken out of it first; if the queue's owner takes
// it at that same moment, the buffer is left to that owner. BP_OK, also (with a WARN line) for a buffer that is
// free already; BP_ERR_PARAM for a null or malformed header.
uint32_t BP_SlabFreeBuf(BP_SlabBuf *pstSlabBuf);

// 1 when a caller without exemption may take a buffer of the class, else 0, with a DEBUG line. Advisory under
// contention: the count is read without the class lock.
uint32_t BP_IsSlabBufAvaliable(uint32_t ulClass);

// The use that the buffer is in now; a later use of the same buffer has another number.
uint32_t BP_SlabUseSeq(const BP_SlabBuf *pstSlabBuf);

// Sets BP_BUF_TIMEOUT if the buffer is still in the given use, and leaves it alone if it was given back or has
// changed hands since.
void BP_SlabMarkTimeout(BP_SlabBuf *pstSlabBuf, uint32_t ulUseSeq);

// Ends the given use, if the buffer is still in it: from here on no mark meant for it arrives. Clears
// BP_BUF_TIMEOUT and returns whether it was set; false when the buffer has changed hands before.
bool BP_SlabEndUse(BP_SlabBuf *pstSlabBuf, uint32_t ulUseSeq);

// Begins a new use of a buffer that came out of a queue and is to go into one again. For the thread that holds
// it.
void BP_SlabRenewUse(BP_SlabBuf *pstSlabBuf);

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
