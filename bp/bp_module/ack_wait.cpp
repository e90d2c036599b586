#include "bp/bp_module/ack_wait.h"

#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

void BP_AnnounceAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait) {
    const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
    pstModule->stAckWaitList.PushBack(pstWait);
}

// What a module of this process answered too late is said here: its thread, which looks for the answer when the
// handler is done, does not find it any more.
static void BP_DropAnswer(BP_SlabBuf *pstAnswer) {
    BP_MsgHdr stHdr;
    memcpy(&stHdr, pstAnswer->pucData, sizeof(stHdr));
    if (stHdr.usSrcProcID == BP_GetProcInfo()->usProcID && BP_GetModuleByID(stHdr.ulModuleSrcID) != nullptr) {
        BP_LOG_WARN(0, "[%s]Force free ack slab buf, AssiMsgId:%u", "BP_FreeTimeoutAckMsg", stHdr.AssiMsgId);
    }
    BP_SlabFreeBuf(pstAnswer);
}

void BP_WithdrawAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait) {
    {
        const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
        BP_List<BP_AckWait>::Remove(pstWait);
    }
    BP_SlabBuf *pstAnswer = nullptr;
    while ((pstAnswer = BP_ModuleGetMsg(&pstModule->stAckQueue, BP_GET_BY_ASSI_ID, pstWait->ulAssiMsgId)) !=
           nullptr) {
        BP_DropAnswer(pstAnswer);
    }
    for (; pstWait->ulTaken < pstWait->ulPromised; pstWait->ulTaken++) {
        pstWait->semAnswer.Wait();
    }
}

// Needs the lock of the module's stAckQueue.
static BP_AckWait *BP_FindAckWait(const BP_ModuleInfo *pstModule, uint32_t ulAssiMsgId) {
    BP_AckWait *pstWait = pstModule->stAckWaitList.First();
    while (pstWait != nullptr && pstWait->ulAssiMsgId != ulAssiMsgId) {
        pstWait = pstModule->stAckWaitList.Next(pstWait);
    }
    return pstWait;
}

uint32_t BP_AddAnswer(BP_ModuleInfo *pstModule, BP_SlabBuf *pstAnswer) {
    BP_AckWait *pstWait = nullptr;
    bool bAppended = false;
    {
        const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
        bAppended = BP_AppendMsg(&pstModule->stAckQueue, pstAnswer);
        pstWait = bAppended ? BP_FindAckWait(pstModule, BP_AssiMsgIdOf(pstAnswer)) : nullptr;
        if (pstWait != nullptr) {
            pstWait->ulPromised++;
        } else if (bAppended) {
            BP_UnlinkMsg(pstAnswer);
        }
    }
    if (!bAppended) {
        return BP_RefuseMsg(&pstModule->stAckQueue, pstAnswer);
    }
    if (pstWait != nullptr) {
        pstWait->semAnswer.Post(); // after the lock: the thread that wakes takes it at once
    } else {
        BP_DropAnswer(pstAnswer);
    }
    return BP_OK;
}
