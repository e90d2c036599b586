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

// Takes the first buffer (BP_GET_FIRST), or the first whose message carries ulAssiMsgId (BP_GET_BY_ASSI_ID); it
// then belongs to the caller. Null when there is none. Any thread, without waiting for one to arrive.
BP_SlabBuf *BP_ModuleGetMsg(BP_ListCtrl *pstMstCtrl, uint32_t enGetbyType, uint32_t ulAssiMsgId);

// Takes the first buffer that has data memory and that the test accepts, which runs under the queue's lock;
// null when there is none. Any thread.
using BP_PfnMsgTest = bool (*)(const BP_SlabBuf *pstBuf, uint32_t ulWanted);
BP_SlabBuf *BP_TakeMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted);

// Whether there is such a buffer now. Any thread.
bool BP_HasMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted);

// Buffers in the queue now. Any thread.
uint32_t BP_QueueLength(BP_ListCtrl *pstMstCtrl);

// Announces and withdraws a synchronous request of the module: between the two, its answer is kept for it. The
// record stays the caller's and must not move while announced. Withdrawing waits for the posts that are
// promised to it. Any thread.
void BP_AnnounceAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait);
void BP_WithdrawAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait);

// The announced request of the module with that identifier, or null. The caller must post its semAnswer, and
// until then it stays where it is. Any thread.
BP_AckWait *BP_PromiseWakeup(BP_ModuleInfo *pstModule, uint32_t ulAssiMsgId);

// Gives back every answer in the module's stAckQueue that no announced request waits for: answers that came too
// late, twice, or to a question never asked. Returns their number. Any thread.
uint32_t BP_DropStaleAcks(BP_ModuleInfo *pstModule);

// The same for every module. Made by the main thread, in idle passes and when buffers are short, rather than
// where an answer arrives: the wait it belongs to may end between its arrival and a look.
uint32_t BP_DropAllStaleAcks();

#endif
