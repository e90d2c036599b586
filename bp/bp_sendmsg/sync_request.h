// Synchronous requests: send a message and wait, polling, until its answer is there or the time is up.
//
// The requester is the calling thread's module, or the main module for a thread of none; several threads may
// wait on the main module's answers at once. Two threads must not wait: a main thread for another process,
// because it would itself have to send the request and receive the answer; and a module's thread for its own
// module.
//
// An answer that comes when the wait is over is given back where it arrives (ack_wait.h).
#ifndef BP_BP_SENDMSG_SYNC_REQUEST_H
#define BP_BP_SENDMSG_SYNC_REQUEST_H

#include <cstdint>

#include "bp/bp_msg_hdr.h"

// Sends pstMsg (made by BP_CreatStructMsg, header not filled in) and waits for at most ulTimeout seconds,
// and at least BP_SYNC_POLL_MS milliseconds, in whose steps the default pace counts. BP_OK with the answer in
// pstRspMsg, which the caller erases; BP_ERR_SYNC_TIMEOUT; BP_ERR_PARAM for a missing handle or buffer;
// BP_ERR_FAIL when there is no requester, or the request cannot be addressed, sent or waited for. The caller
// erases pstMsg in every case.
uint32_t BP_InnerSendSyncMsg(uint32_t ulModuleDstID, uint32_t ulMsgCode, BP_StructMsg *pstMsg,
                             BP_StructMsg *pstRspMsg, uint32_t ulTimeout);

// Sends the text pcCmdData as a request and stores the answer's text at ppcFullRes: calloc'ed, terminated,
// ending at the answer's first NUL; the caller frees it. ulTimeout in seconds. BP_OK; BP_ERR_PARAM for a null
// argument; BP_ERR_NO_MEM; BP_ERR_SYNC_TIMEOUT, or another failed step's result. Nothing is stored on a
// failure, except null when memory ran out.
uint32_t BP_SendCmdMsg(const char *pcCmdData, uint32_t ulModuleDstID, uint32_t ulMsgCode, uint32_t ulTimeout,
                       char **ppcFullRes);

#endif
