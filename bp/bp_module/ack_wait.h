// Synchronous requests and the answers they wait for. A request is announced before it is sent, and an answer
// is queued only for an announced request: one that comes late, twice or unasked is given back where it
// arrives.
#ifndef BP_BP_MODULE_ACK_WAIT_H
#define BP_BP_MODULE_ACK_WAIT_H

#include <cstdint>

#include "bp/bp_module/module_info.h"

// Announces a request of the module. The record stays the caller's and must not move until BP_WithdrawAckWait.
// Any thread, as for all of these.
void BP_AnnounceAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait);

// Ends the wait: an answer that is still queued for it is given back, and a later one will be. Returns once the
// threads that were about to wake the requester have done so.
void BP_WithdrawAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait);

// Queues the answer to the module and wakes the thread that waits for it; if none does, gives the answer back.
// Either way it is no longer the caller's. BP_OK; BP_ERR_PARAM, with nothing done, for a buffer that is free or
// queued already.
uint32_t BP_AddAnswer(BP_ModuleInfo *pstModule, BP_SlabBuf *pstAnswer);

#endif
