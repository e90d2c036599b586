#include "bp/bp_module/module_thread.h"

#include "bp/bp_log/log.h"
#include "bp/bp_log/thread_info.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"
#include "bp/bp_timer/timer_scan.h"

void BP_BindModuleThread(BP_ModuleInfo *pstWorkModule) {
    {
        const BP_SemGuard stPublished(
            BP_GetProcInfo()->stModuleCtrl.semLock); // held by registration until then
    }
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
    const uint32_t ulMarkSeq = BP_SlabMarkSeq(pstBuf);
    if (pstProc != nullptr && pstProc->pfnProc != nullptr) {
        pstProc->pfnProc(stHdr.ulMsgCode, &stMsg, pstProc->ulParam);
    }
    // From here on the sender's mark is too late. A message that the handler kept is no longer this thread's,
    // but ending its mark is harmless whoever has it; one that was sent on or erased has another number.
    const bool bTimedOut = BP_SlabEndMark(pstBuf, ulMarkSeq);
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
    for (uint32_t ulLeft = BP_QueueLength(&pstWorkModule->stMsgQueue); ulLeft != 0; ulLeft--) {
        BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&pstWorkModule->stMsgQueue, BP_GET_FIRST, 0);
        if (pstBuf == nullptr) {
            break;
        }
        if ((BP_Read(pstBuf->ucFlag) & BP_BUF_TIMEOUT) != 0) {
            BP_FreeTimeoutAckMsg(BP_MsgHdrOf(pstBuf));
            BP_SlabFreeBuf(pstBuf);
        } else {
            BP_HandleMsg(pstWorkModule, pstBuf);
        }
    }
    return BP_OK;
}
