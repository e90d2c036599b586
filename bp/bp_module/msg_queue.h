// Queues of buffers: a module's messages, answers and timer notices, and the process's send queue. A queue is
// bounded only by the slab pools.
#ifndef BP_BP_MODULE_MSG_QUEUE_H
#define BP_BP_MODULE_MSG_QUEUE_H

#include <cstdint>

#include "bp/bp_module/module_info.h"
#include "bp/bp_types.h"

// What BP_ModuleGetMsg looks for.
constexpr uint32_t BP_GET_FIRST = 0;
constexpr uint32_t BP_GET_BY_ASSI_ID = 1;

// Appends a buffer, which then belongs to the queue; waking whoever serves it is the caller's part. BP_OK, or
// BP_ERR_PARAM when an argument is null or the buffer is free or queued already. Any thread.
uint32_t BP_ModuleAddMsg(BP_ListCtrl *pstMstCtrl, BP_SlabBuf *pstSlabBuf);

// The same in pieces, for a caller that holds the queue's lock: appends a buffer, false if it is free or queued
// already, when it must not be linked a second time; takes one out; and, without the lock, reports a refusal
// and returns BP_ERR_PARAM.
bool BP_AppendMsg(BP_ListCtrl *pstQueue, BP_SlabBuf *pstBuf);
void BP_UnlinkMsg(BP_SlabBuf *pstBuf);
uint32_t BP_RefuseMsg(const BP_ListCtrl *pstQueue, const BP_SlabBuf *pstBuf);

// The identifier of the message in a buffer that has data memory.
uint32_t BP_AssiMsgIdOf(const BP_SlabBuf *pstBuf);

// Takes the first buffer (BP_GET_FIRST), or the first whose message carries ulAssiMsgId (BP_GET_BY_ASSI_ID); it
// then belongs to the caller. Null when there is none. Any thread, without waiting for one to arrive.
BP_SlabBuf *BP_ModuleGetMsg(BP_ListCtrl *pstMstCtrl, uint32_t enGetbyType, uint32_t ulAssiMsgId);

// Takes the first buffer that has data memory and that the test accepts, which runs under the queue's lock;
// null when there is none. Any thread.
using BP_PfnMsgTest = bool (*)(const BP_SlabBuf *pstBuf, uint32_t ulWanted);
BP_SlabBuf *BP_TakeMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted);

// Buffers in the queue now. Any thread.
uint32_t BP_QueueLength(BP_ListCtrl *pstMstCtrl);

#endif
