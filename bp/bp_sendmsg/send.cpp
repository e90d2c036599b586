#include "bp/bp_sendmsg/send.h"

#include "bp/bp_log/log.h"
#include "bp/bp_module/ack_wait.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"

static uint32_t BP_CheckSend(const BP_ModuleInfo *pstSrcModule, const BP_StructMsg *pstMsg) {
    static constexpr char szFunc[] = "BP_SendMsgProc";
    if (pstSrcModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]fail to find src module.", szFunc);
        return BP_ERR_PARAM;
    }
    if (pstMsg == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]fail to get send msg data.", szFunc);
        return BP_ERR_PARAM;
    }
    if (pstMsg->pstSlabBuf == nullptr) {
        BP_LOG_DEBUG("[%s]invalid slab buffer.", szFunc);
        return BP_ERR_PARAM;
    }
    if (pstMsg->pstSlabBuf->pucData == nullptr) {
        BP_LOG_DEBUG("[%s]invalid msg head buffer.", szFunc);
        return BP_ERR_PARAM;
    }
    const uint32_t ulDstID = BP_MsgHdrOf(pstMsg->pstSlabBuf)->ulModuleDstID;
    const BP_ModuleConfig *pstDst = BP_GetModuleConfigByID(ulDstID);
    if (pstDst == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid ulModuleDstID:%u.", szFunc, ulDstID);
        return BP_ERR_PARAM;
    }
    if (pstSrcModule->ulModuleID == BP_MODULE_ID_MAIN && pstDst->ulModuleID == BP_MODULE_ID_MAIN) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]src module id and dst module id are all invalid.", szFunc);
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

// pstDst is the local destination, null for a remote one.
static uint32_t BP_Queue(BP_ModuleInfo *pstDst, uint32_t ulMsgType, BP_SlabBuf *pstBuf) {
    if (pstDst == nullptr) {
        return BP_ModuleAddMsg(&BP_GetProcInfo()->stSendQueue, pstBuf);
    }
    return ulMsgType == BP_MSG_TYPE_ACK ? BP_AddAnswer(pstDst, pstBuf)
                                        : BP_ModuleAddMsg(&pstDst->stMsgQueue, pstBuf);
}

static void BP_CountSend(uint32_t ulModuleID, uint32_t ulMsgCode) {
    BP_ModuleInfo *pstModule = BP_GetModuleByID(ulModuleID);
    if (pstModule != nullptr) {
        pstModule->ulSendCnt.fetch_add(1, std::memory_order_relaxed);
        BP_Write(pstModule->ulLastSendMsg, ulMsgCode);
    }
}

uint32_t BP_SendMsgProc(BP_ModuleInfo *pstSrcModule, BP_StructMsg *pstMsg) {
    uint32_t ulRet = BP_CheckSend(pstSrcModule, pstMsg);
    if (ulRet != BP_OK) {
        return ulRet;
    }
    // A copy: once the buffer is queued, its receiver may have given it back before the next line runs.
    const BP_MsgHdr stHdr = *BP_MsgHdrOf(pstMsg->pstSlabBuf);
    const bool bLocal = pstSrcModule->usProcID == stHdr.usDstProcID;
    BP_ModuleInfo *pstDst = bLocal ? BP_GetModuleByID(stHdr.ulModuleDstID) : nullptr;
    if (bLocal && pstDst == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s] dst module id %x is invalid.", __func__, stHdr.ulModuleDstID);
        return BP_ERR_FAIL;
    }
    if ((BP_Read(pstMsg->pstSlabBuf->ucFlag) & BP_BUF_DEQUEUED) != 0) {
        // A received message that is sent on: the time-out mark of whoever requested it must not follow it.
        BP_SlabRenewMark(pstMsg->pstSlabBuf);
    }
    ulRet = BP_Queue(pstDst, stHdr.ulMsgType, pstMsg->pstSlabBuf);
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(ulRet, "[%s]set msg To dst module fail.", __func__);
        return ulRet;
    }
    BP_CountSend(pstSrcModule->ulModuleID, stHdr.ulMsgCode);
    pstMsg->ulFlags |= BP_MSG_FLAG_SENT;
    if (!bLocal || BP_IsForMainThread(stHdr)) {
        BP_PaceQueued();
    }
    if (bLocal) {
        BP_WakeupRecord(pstDst);
    }
    return BP_OK;
}

uint32_t BP_PostMsg(uint32_t ulModuleDstID, uint32_t ulMsgCode, const void *pucMem, uint32_t ulMemLen) {
    BP_ModuleInfo *pstSrc = BP_GetCurModule();
    if (pstSrc == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find src module.", __func__);
        return BP_ERR_FAIL;
    }
    BP_StructMsg stMsg = BP_CreatStructMsg(pucMem, ulMemLen);
    if (stMsg.pstSlabBuf == nullptr) {
        return BP_ERR_FAIL;
    }
    uint32_t ulRet = BP_ConfigMsgHdr(&stMsg, pstSrc->ulModuleID, ulModuleDstID, ulMsgCode, BP_MSG_TYPE_NORMAL);
    if (ulRet == BP_OK) {
        ulRet = BP_SendMsgProc(pstSrc, &stMsg);
    }
    BP_EraseMsgData(&stMsg);
    return ulRet;
}
