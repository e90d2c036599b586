#include "bp/bp_sendmsg/sync_request.h"

#include <cstdlib>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/ack_wait.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"
#include "bp/bp_sendmsg/send.h"

static constexpr char g_szSyncFunc[] = "BP_InnerSendSyncMsg";

static BP_SlabBuf *BP_PollAnswer(BP_ModuleInfo *pstModule, BP_AckWait *pstWait, uint32_t ulLimitMs,
                                 uint32_t *pulElapsedMs) {
    BP_SlabBuf *pstAnswer = nullptr;
    *pulElapsedMs = 0;
    do {
        *pulElapsedMs += BP_PaceStep(pstWait, ulLimitMs - *pulElapsedMs);
        pstAnswer = BP_ModuleGetMsg(&pstModule->stAckQueue, BP_GET_BY_ASSI_ID, pstWait->ulAssiMsgId);
    } while (pstAnswer == nullptr && *pulElapsedMs < ulLimitMs);
    return pstAnswer;
}

static uint32_t BP_CheckSyncMsg(const BP_StructMsg *pstMsg) {
    if (pstMsg->pstSlabBuf == nullptr) {
        BP_LOG_DEBUG("[%s]invalid slab buffer.", g_szSyncFunc);
        return BP_ERR_PARAM;
    }
    if (pstMsg->pstSlabBuf->pucData == nullptr) {
        BP_LOG_DEBUG("[%s]invalid msg head buffer.", g_szSyncFunc);
        return BP_ERR_PARAM;
    }
    return BP_OK;
}

static uint32_t BP_LimitMs(uint32_t ulTimeout) {
    const uint64_t ulMs = static_cast<uint64_t>(ulTimeout) * 1000;
    const uint32_t ulMax = UINT32_MAX - BP_SYNC_POLL_MS;
    return ulMs < ulMax ? static_cast<uint32_t>(ulMs) : ulMax;
}

// Sends the announced request and waits for its answer.
static uint32_t BP_SendAndWait(BP_ModuleInfo *pstModule, BP_StructMsg *pstMsg, const BP_MsgHdr &stHdr,
                               BP_AckWait *pstWait, uint32_t ulTimeout, BP_SlabBuf **ppstAnswer) {
    BP_SlabBuf *pstRequest = pstMsg->pstSlabBuf;
    if ((BP_Read(pstRequest->ucFlag) & BP_BUF_DEQUEUED) != 0) {
        BP_SlabRenewMark(pstRequest); // before its number is noted, or sending would change it
    }
    const uint32_t ulMarkSeq = BP_SlabMarkSeq(pstRequest);
    if (BP_SendMsgProc(pstModule, pstMsg) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to send msg.", g_szSyncFunc);
        return BP_ERR_FAIL;
    }
    if (BP_PaceBeginWait(pstWait) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to create epoll.", g_szSyncFunc);
        return BP_ERR_FAIL;
    }
    const uint32_t ulLimitMs = BP_LimitMs(ulTimeout);
    uint32_t ulElapsedMs = 0;
    *ppstAnswer = BP_PollAnswer(pstModule, pstWait, ulLimitMs, &ulElapsedMs);
    BP_PaceEndWait(pstWait);
    if (*ppstAnswer != nullptr) {
        return BP_OK;
    }
    BP_LOG_ERROR(BP_ERR_SYNC_TIMEOUT, "[%s]wait response msg timeout(%u %u)(%x %x),Cmd(%u)", g_szSyncFunc,
                 ulElapsedMs, ulLimitMs, pstModule->ulModuleID, stHdr.ulModuleDstID, stHdr.ulMsgCode);
    // The request was handed over: by now it may have been given back, and its buffer be another message's.
    BP_SlabMarkTimeout(pstRequest, ulMarkSeq);
    return BP_ERR_SYNC_TIMEOUT;
}

uint32_t BP_InnerSendSyncMsg(uint32_t ulModuleDstID, uint32_t ulMsgCode, BP_StructMsg *pstMsg,
                             BP_StructMsg *pstRspMsg, uint32_t ulTimeout) {
    if (pstMsg == nullptr || pstRspMsg == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid input param.", g_szSyncFunc);
        return BP_ERR_PARAM;
    }
    BP_ModuleInfo *pstModule = BP_GetCurModule();
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find src module.", g_szSyncFunc);
        return BP_ERR_FAIL;
    }
    if (BP_CheckSyncMsg(pstMsg) != BP_OK) {
        return BP_ERR_PARAM;
    }
    if (BP_ConfigMsgHdr(pstMsg, pstModule->ulModuleID, ulModuleDstID, ulMsgCode, BP_MSG_TYPE_NORMAL) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to config msg head.", g_szSyncFunc);
        return BP_ERR_FAIL;
    }
    const BP_MsgHdr stHdr = *BP_MsgHdrOf(pstMsg->pstSlabBuf);
    BP_AckWait stWait;
    stWait.ulAssiMsgId = stHdr.AssiMsgId;
    BP_SlabBuf *pstAnswer = nullptr;
    BP_AnnounceAckWait(pstModule, &stWait);
    const uint32_t ulRet = BP_SendAndWait(pstModule, pstMsg, stHdr, &stWait, ulTimeout, &pstAnswer);
    BP_WithdrawAckWait(pstModule, &stWait);
    if (ulRet == BP_OK) {
        *pstRspMsg = BP_StructMsg{0, 0, pstAnswer};
    }
    return ulRet;
}

// The command call's lines are the destination's business: they appear where a log module of its ID is
// registered.
#define BP_CMD_LOG(ulModuleID, ulCode, ...)                                                                    \
    BP_WriteLog(BP_LOG_LEVEL_ERROR, ulCode, ulModuleID, BP_LOG_UNIT, __LINE__, __VA_ARGS__)

// Copies the answer's payload into a text of its own.
static uint32_t BP_TakeAnswerText(const BP_StructMsg *pstRsp, uint32_t ulModuleDstID, uint32_t ulMsgCode,
                                  char **ppcFullRes) {
    uint8_t *pucPayload = nullptr;
    uint32_t ulLen = 0;
    const uint32_t ulRet = BP_DecodeStructMsgData(pstRsp, &pucPayload, &ulLen);
    if (ulRet != BP_OK) {
        BP_CMD_LOG(ulModuleDstID, BP_ERR_CMD_CALL, "fail to BP_DecodeStructMsgData MsgCode:%u", ulMsgCode);
        return ulRet;
    }
    *ppcFullRes = static_cast<char *>(calloc(1, ulLen + 1));
    if (*ppcFullRes == nullptr) {
        BP_CMD_LOG(ulModuleDstID, BP_ERR_NO_MEM, "calloc fail MsgCode:%u", ulMsgCode);
        return BP_ERR_NO_MEM;
    }
    memcpy(*ppcFullRes, pucPayload, strnlen(reinterpret_cast<const char *>(pucPayload), ulLen));
    return BP_OK;
}

uint32_t BP_SendCmdMsg(const char *pcCmdData, uint32_t ulModuleDstID, uint32_t ulMsgCode, uint32_t ulTimeout,
                       char **ppcFullRes) {
    if (ppcFullRes == nullptr || pcCmdData == nullptr) {
        BP_CMD_LOG(ulModuleDstID, BP_ERR_NO_MEM, "Param illegal pcCmdData:%p ppcFullRes:%p",
                   static_cast<const void *>(pcCmdData), static_cast<void *>(ppcFullRes));
        return BP_ERR_PARAM;
    }
    BP_StructMsg stReq = BP_CreatStructMsg(pcCmdData, static_cast<uint32_t>(strlen(pcCmdData)));
    BP_StructMsg stRsp = {};
    uint32_t ulRet = BP_InnerSendSyncMsg(ulModuleDstID, ulMsgCode, &stReq, &stRsp, ulTimeout);
    BP_EraseMsgData(&stReq);
    if (ulRet != BP_OK) {
        BP_CMD_LOG(ulModuleDstID, BP_ERR_CMD_CALL, "fail to BP_InnerSendSyncMsg MsgCode:%u", ulMsgCode);
        return ulRet;
    }
    ulRet = BP_TakeAnswerText(&stRsp, ulModuleDstID, ulMsgCode, ppcFullRes);
    BP_EraseMsgData(&stRsp);
    return ulRet;
}
