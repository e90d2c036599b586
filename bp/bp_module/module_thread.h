// The thread of an ordinary module: wait for a wake-up, drain the queues, hand each message to its handler.
#ifndef BP_BP_MODULE_MODULE_THREAD_H
#define BP_BP_MODULE_MODULE_THREAD_H

#include <cstdint>

#include "bp/bp_module/module_info.h"
#include "bp/bp_msg_hdr.h"

// Entry of every module thread except the main module's; pstWorkModule is its BP_ModuleInfo. Returns only when
// that is null, with an ERROR line.
void *BP_ThreadProcMain(void *pstWorkModule);

// Handles what is in the module's stMsgQueue when it is called, in the calling thread, which is the module's
// own. What is queued meanwhile has a wake-up, or a pass of the main thread, of its own, so that a sender that
// never stops does not keep the module from its timers. BP_OK, or BP_ERR_PARAM for a null record.
uint32_t BP_ThreadRecvMsgProc(BP_ModuleInfo *pstWorkModule);

// Gives back the answer to a request whose sender stopped waiting, if that answer already sits in the sender's
// stAckQueue. Any thread.
void BP_FreeTimeoutAckMsg(const BP_MsgHdr *pstMsgHdr);

// Makes the calling thread the one of its module: look-ups know it from here on, and it is named and listed.
// First thing in every thread of the runtime.
void BP_BindModuleThread(BP_ModuleInfo *pstWorkModule);

#endif
