// Hands a message to its way: the queue of a module of this process, or the send queue towards another process.
#ifndef BP_BP_SENDMSG_SEND_H
#define BP_BP_SENDMSG_SEND_H

#include <cstdint>

#include "bp/bp_module/module_info.h"
#include "bp/bp_msg_hdr.h"

// Queues the addressed message of pstSrcModule and returns at once; a message to another process leaves in the
// main thread's next pass (pace.h). On success the handle has BP_MSG_FLAG_SENT and no longer owns the buffer;
// on failure it still does. The caller erases the handle in every case. Any thread. BP_OK; BP_ERR_PARAM for a
// missing argument, buffer or destination row; BP_ERR_FAIL when a main module sends to a main module, or a
// local destination is not registered.
uint32_t BP_SendMsgProc(BP_ModuleInfo *pstSrcModule, BP_StructMsg *pstMsg);

// Sends ulMemLen bytes as an ordinary message of the calling thread's module (the main module for a thread of
// none). Results as above; BP_ERR_FAIL also when the process has no main module or no buffer is to be had. Any
// thread.
uint32_t BP_PostMsg(uint32_t ulModuleDstID, uint32_t ulMsgCode, const void *pucMem, uint32_t ulMemLen);

#endif
