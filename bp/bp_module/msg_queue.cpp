#include "bp/bp_module/msg_queue.h"

#include <cstddef>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_msg_hdr.h"

bool BP_AppendMsg(BP_ListCtrl *pstQueue, BP_SlabBuf *pstBuf) {
    if (BP_Read(pstBuf->pstQueue) != nullptr || BP_Read(pstBuf->ucFlag) == 0) {
        return false;
    }
    pstQueue->stUsedList.PushBack(pstBuf);
    BP_Write(pstBuf->pstQueue, pstQueue);
    return true;
}

static bool BP_LockAndAppend(BP_ListCtrl *pstQueue, BP_SlabBuf *pstBuf) {
    const BP_SemGuard stGuard(pstQueue->semLock);
    return BP_AppendMsg(pstQueue, pstBuf);
}

void BP_UnlinkMsg(BP_SlabBuf *pstBuf) {
    BP_List<BP_SlabBuf>::Remove(pstBuf);
    pstBuf->pstQueue.store(nullptr, std::memory_order_release);
}

uint32_t BP_RefuseMsg(const BP_ListCtrl *pstQueue, const BP_SlabBuf *pstBuf) {
    BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params, pstMstCtrl:%p, pstSlabBuf:%p", "BP_ModuleAddMsg",
                 static_cast<const void *>(pstQueue), static_cast<const void *>(pstBuf));
    return BP_ERR_PARAM;
}

uint32_t BP_ModuleAddMsg(BP_ListCtrl *pstMstCtrl, BP_SlabBuf *pstSlabBuf) {
    if (pstMstCtrl == nullptr || pstSlabBuf == nullptr || !BP_LockAndAppend(pstMstCtrl, pstSlabBuf)) {
        return BP_RefuseMsg(pstMstCtrl, pstSlabBuf);
    }
    return BP_OK;
}

uint32_t BP_AssiMsgIdOf(const BP_SlabBuf *pstBuf) {
    uint32_t ulAssiMsgId = 0;
    memcpy(&ulAssiMsgId, pstBuf->pucData + offsetof(BP_MsgHdr, AssiMsgId), sizeof(ulAssiMsgId));
    return ulAssiMsgId;
}

// Needs the queue's lock.
static BP_SlabBuf *BP_FindByAssiId(const BP_ListCtrl *pstQueue, uint32_t ulAssiMsgId) {
    BP_SlabBuf *pstBuf = pstQueue->stUsedList.First();
    while (pstBuf != nullptr && (pstBuf->pucData == nullptr || BP_AssiMsgIdOf(pstBuf) != ulAssiMsgId)) {
        pstBuf = pstQueue->stUsedList.Next(pstBuf);
    }
    return pstBuf;
}

// Needs the queue's lock.
static BP_SlabBuf *BP_Unqueue(BP_SlabBuf *pstBuf) {
    if (pstBuf != nullptr) {
        BP_SetFlag(pstBuf, BP_BUF_DEQUEUED);
        BP_UnlinkMsg(pstBuf);
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

BP_SlabBuf *BP_TakeMsgIf(BP_ListCtrl *pstMstCtrl, BP_PfnMsgTest pfnTest, uint32_t ulWanted) {
    const BP_SemGuard stGuard(pstMstCtrl->semLock);
    BP_SlabBuf *pstBuf = pstMstCtrl->stUsedList.First();
    while (pstBuf != nullptr && (pstBuf->pucData == nullptr || !pfnTest(pstBuf, ulWanted))) {
        pstBuf = pstMstCtrl->stUsedList.Next(pstBuf);
    }
    return BP_Unqueue(pstBuf);
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
