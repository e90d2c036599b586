#include "bp/bp_module/msg_queue.h"

#include <cstddef>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

// A buffer that is free or queued already must not be linked a second time.
static bool BP_Enqueue(BP_ListCtrl *pstQueue, BP_SlabBuf *pstBuf) {
    const BP_SemGuard stGuard(pstQueue->semLock);
    if (BP_Read(pstBuf->pstQueue) != nullptr || BP_Read(pstBuf->ucFlag) == 0) {
        return false;
    }
    pstQueue->stUsedList.PushBack(pstBuf);
    BP_Write(pstBuf->pstQueue, pstQueue);
    return true;
}

uint32_t BP_ModuleAddMsg(BP_ListCtrl *pstMstCtrl, BP_SlabBuf *pstSlabBuf) {
    if (pstMstCtrl == nullptr || pstSlabBuf == nullptr || !BP_Enqueue(pstMstCtrl, pstSlabBuf)) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params, pstMstCtrl:%p, pstSlabBuf:%p", __func__,
                     static_cast<void *>(pstMstCtrl), static_cast<void *>(pstSlabBuf));
        return BP_ERR_PARAM;
    }
    return BP_OK;
}

static bool BP_AssiMsgIdOf(const BP_SlabBuf *pstBuf, uint32_t *pulAssiMsgId) {
    if (pstBuf->pucData == nullptr) {
        return false;
    }
    memcpy(pulAssiMsgId, pstBuf->pucData + offsetof(BP_MsgHdr, AssiMsgId), sizeof(*pulAssiMsgId));
    return true;
}

// Needs the queue's lock.
static BP_SlabBuf *BP_FindByAssiId(const BP_ListCtrl *pstQueue, uint32_t ulAssiMsgId) {
    BP_SlabBuf *pstBuf = pstQueue->stUsedList.First();
    while (pstBuf != nullptr) {
        uint32_t ulFound = 0;
        if (BP_AssiMsgIdOf(pstBuf, &ulFound) && ulFound == ulAssiMsgId) {
            break;
        }
        pstBuf = pstQueue->stUsedList.Next(pstBuf);
    }
    return pstBuf;
}

// Needs the queue's lock.
static BP_SlabBuf *BP_Unqueue(BP_SlabBuf *pstBuf) {
    if (pstBuf != nullptr) {
        BP_List<BP_SlabBuf>::Remove(pstBuf);
        BP_SetFlag(pstBuf, BP_BUF_DEQUEUED);
        pstBuf->pstQueue.store(nullptr, std::memory_order_release);
    }
    return pstBuf;
}

BP_SlabBuf *BP_ModuleGetMsg(BP_ListCtrl *pstMstCtrl, uint32_t enGetbyType, uint32_t ulAssiMsgId) {
    if (pstMstCtrl == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return nullptr;
    }
    {
        const BP_SemGuard stGuard(pstMstCtrl->semLock);
        BP_SlabBuf *pstFirst = pstMstCtrl->stUsedList.First();
        if (pstFirst == nullptr || enGetbyType == BP_GET_FIRST) {
            return BP_Unqueue(pstFirst);
        }
        if (enGetbyType == BP_GET_BY_ASSI_ID) {
            return BP_Unqueue(BP_FindByAssiId(pstMstCtrl, ulAssiMsgId));
        }
    }
    BP_LOG_WARN(0, "[%s]enGetbyType(%d) is invalid.", __func__, static_cast<int>(enGetbyType));
    return nullptr;
}

// Needs the queue's lock.
static BP_SlabBuf *BP_FindMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted) {
    BP_SlabBuf *pstBuf = pstMstCtrl->stUsedList.First();
    while (pstBuf != nullptr && (pstBuf->pucData == nullptr || !pfnTest(pstBuf, ulWanted))) {
        pstBuf = pstMstCtrl->stUsedList.Next(pstBuf);
    }
    return pstBuf;
}

BP_SlabBuf *BP_TakeMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted) {
    const BP_SemGuard stGuard(pstMstCtrl->semLock);
    return BP_Unqueue(BP_FindMsgIf(pstMstCtrl, pfnTest, ulWanted));
}

bool BP_HasMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted) {
    const BP_SemGuard stGuard(pstMstCtrl->semLock);
    return BP_FindMsgIf(pstMstCtrl, pfnTest, ulWanted) != nullptr;
}

uint32_t BP_QueueLength(BP_ListCtrl *pstMstCtrl) {
    const BP_SemGuard stGuard(pstMstCtrl->semLock);
    uint32_t ulNum = 0;
    for (const BP_SlabBuf *pstBuf = pstMstCtrl->stUsedList.First(); pstBuf != nullptr;
         pstBuf = pstMstCtrl->stUsedList.Next(pstBuf)) {
        ulNum++;
    }
    return ulNum;
}

void BP_AnnounceAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait) {
    const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
    pstModule->stAckWaitList.PushBack(pstWait);
}

// Needs the lock of the module's stAckQueue.
static BP_AckWait *BP_FindAckWait(const BP_ModuleInfo *pstModule, uint32_t ulAssiMsgId) {
    BP_AckWait *pstWait = pstModule->stAckWaitList.First();
    while (pstWait != nullptr && pstWait->ulAssiMsgId != ulAssiMsgId) {
        pstWait = pstModule->stAckWaitList.Next(pstWait);
    }
    return pstWait;
}

BP_AckWait *BP_PromiseWakeup(BP_ModuleInfo *pstModule, uint32_t ulAssiMsgId) {
    const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
    BP_AckWait *pstWait = BP_FindAckWait(pstModule, ulAssiMsgId);
    if (pstWait != nullptr) {
        pstWait->ulPromised++;
    }
    return pstWait;
}

void BP_WithdrawAckWait(BP_ModuleInfo *pstModule, BP_AckWait *pstWait) {
    {
        const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
        BP_List<BP_AckWait>::Remove(pstWait);
    }
    for (; pstWait->ulTaken < pstWait->ulPromised; pstWait->ulTaken++) {
        pstWait->semAnswer.Wait();
    }
}

static BP_SlabBuf *BP_TakeStaleAck(BP_ModuleInfo *pstModule) {
    const BP_SemGuard stGuard(pstModule->stAckQueue.semLock);
    BP_SlabBuf *pstBuf = pstModule->stAckQueue.stUsedList.First();
    while (pstBuf != nullptr) {
        uint32_t ulAssiMsgId = 0;
        if (!BP_AssiMsgIdOf(pstBuf, &ulAssiMsgId) || BP_FindAckWait(pstModule, ulAssiMsgId) == nullptr) {
            break;
        }
        pstBuf = pstModule->stAckQueue.stUsedList.Next(pstBuf);
    }
    return BP_Unqueue(pstBuf);
}

// What this process's own module answered too late is said here too: its thread, which looks for the answer
// when the handler is done, does not find it any more.
static void BP_ReportStaleAck(const BP_SlabBuf *pstBuf) {
    if (pstBuf->pucData == nullptr) {
        return;
    }
    BP_MsgHdr stHdr;
    memcpy(&stHdr, pstBuf->pucData, sizeof(stHdr));
    if (stHdr.usSrcProcID == BP_GetProcInfo()->usProcID && BP_GetModuleByID(stHdr.ulModuleSrcID) != nullptr) {
        BP_LOG_WARN(0, "[%s]Force free ack slab buf, AssiMsgId:%u", "BP_FreeTimeoutAckMsg", stHdr.AssiMsgId);
    }
}

uint32_t BP_DropStaleAcks(BP_ModuleInfo *pstModule) {
    uint32_t ulNum = 0;
    BP_SlabBuf *pstBuf = BP_TakeStaleAck(pstModule);
    while (pstBuf != nullptr) {
        BP_ReportStaleAck(pstBuf);
        BP_SlabFreeBuf(pstBuf);
        ulNum++;
        pstBuf = BP_TakeStaleAck(pstModule);
    }
    return ulNum;
}

uint32_t BP_DropAllStaleAcks() {
    BP_ModuleInfo *apstModule[BP_MAX_MODULE_NUM];
    const uint32_t ulModules = BP_ListModules(apstModule, BP_MAX_MODULE_NUM);
    uint32_t ulNum = 0;
    for (uint32_t i = 0; i < ulModules; i++) {
        ulNum += BP_DropStaleAcks(apstModule[i]);
    }
    return ulNum;
}
