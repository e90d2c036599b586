#include "bp/bp_module/module_thread.h"

#include "bp/bp_log/log.h"
#include "bp/bp_log/thread_info.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"
#include "bp/bp_timer/timer_scan.h"

void BP_BindModuleThread(BP_ModuleInfo *pstWorkModule) {
    // Registration stores the same value when pthread_create returns, which may be later than this.
    BP_Write(pstWorkModule->ulThreadID, pthread_self());
    BP_SetThreadModule(pstWorkModule);
    BP_RecordThreadInfo(pstWorkModule->szModuleName);
}

void *BP_ThreadProcMain(void *pstWorkModule) {
    BP_ModuleInfo *pstModule = static_cast<BP_ModuleInfo *>(pstWorkModule);
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid thread input params.", __func__);
        return nullptr;
    }
    BP_BindModuleThread(pstModule);
    for (;;) {
        pstModule->semWakeup.Wait();
        BP_ThreadTimerProc(pstModule);
        BP_ThreadRecvMsgProc(pstModule);
    }
}

void BP_FreeTimeoutAckMsg(const BP_MsgHdr *pstMsgHdr) {
    BP_ModuleInfo *pstSrc = BP_GetModuleByID(pstMsgHdr->ulModuleSrcID);
    if (pstSrc == nullptr) {
        BP_LOG_WARN(0, "[%s]Not Found Src Module:%u", __func__, pstMsgHdr->ulModuleSrcID);
        return;
    }
    BP_SlabBuf *pstAck = BP_ModuleGetMsg(&pstSrc->stAckQueue, BP_GET_BY_ASSI_ID, pstMsgHdr->AssiMsgId);
    if (pstAck != nullptr) {
        BP_LOG_WARN(0, "[%s]Force free ack slab buf, AssiMsgId:%u", __func__, pstMsgHdr->AssiMsgId);
        BP_SlabFreeBuf(pstAck);
    }
}

static void BP_CountRecv(uint32_t ulModuleID, uint32_t ulMsgCode) {
    BP_ModuleInfo *pstModule = BP_GetModuleByID(ulModuleID);
    if (pstModule != nullptr) {
        pstModule->ulRecvCnt.fetch_add(1, std::memory_order_relaxed);
        BP_Write(pstModule->ulLastRecvMsg, ulMsgCode);
    }
}

static void BP_HandleMsg(BP_ModuleInfo *pstModule, BP_SlabBuf *pstBuf) {
    const BP_MsgHdr stHdr = *BP_MsgHdrOf(pstBuf);
    BP_CountRecv(pstModule->ulModuleID, stHdr.ulMsgCode);
    const BP_MsgProc *pstProc = BP_GetMsgProcByMsgID(
        stHdr.ulMsgType == BP_MSG_TYPE_INNER ? &pstModule->stInnerProcCtrl : &pstModule->stMsgProcCtrl,
        stHdr.ulMsgCode);
    BP_StructMsg stMsg = {0, 0, pstBuf};
    const uint32_t ulUseSeq = BP_SlabUseSeq(pstBuf);
    if (pstProc != nullptr && pstProc->pfnProc != nullptr) {
        pstProc->pfnProc(stHdr.ulMsgCode, &stMsg, pstProc->ulParam);
    }
    // From here on the sender's mark is too late. The buffer is looked at only if it is still in the use that
    // the handler was given: it may have been kept, sent on, or erased, and be somebody else's by now.
    const bool bTimedOut = BP_SlabEndUse(pstBuf, ulUseSeq);
    if ((stMsg.ulFlags & BP_MSG_FLAG_KEEP) != 0) {
        return;
    }
    if (bTimedOut) {
        stMsg = {0, 0, pstBuf}; // also when the handler has erased it: a marked buffer outlives that
        BP_FreeTimeoutAckMsg(&stHdr);
    }
    if (stMsg.pstSlabBuf != nullptr) {
        BP_EraseMsgData(&stMsg);
    }
}

uint32_t BP_ThreadRecvMsgProc(BP_ModuleInfo *pstWorkModule) {
    if (pstWorkModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&pstWorkModule->stMsgQueue, BP_GET_FIRST, 0);
    while (pstBuf != nullptr) {
        if ((BP_Read(pstBuf->ucFlag) & BP_BUF_TIMEOUT) != 0) {
            BP_FreeTimeoutAckMsg(BP_MsgHdrOf(pstBuf));
            BP_SlabFreeBuf(pstBuf);
        } else {
            BP_HandleMsg(pstWorkModule, pstBuf);
        }
        pstBuf = BP_ModuleGetMsg(&pstWorkModule->stMsgQueue, BP_GET_FIRST, 0);
    }
    return BP_OK;
}
