#include "bp/bp_cmd/ack.h"

#include <cstdio>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_sendmsg/message.h"
#include "bp/bp_sendmsg/send.h"

const char g_szOperateFail[] = "operate fail";

static constexpr uint32_t BP_CUT_NOTE_SIZE = 64;

// Copies the lines that fit to pcCut and adds the line that says how much is missing. Returns the length.
static uint32_t BP_CutText(const char *pcText, uint32_t ulLen, char (&szCut)[BP_ACK_TEXT_MAX]) {
    uint32_t ulKeep = BP_ACK_TEXT_MAX - BP_CUT_NOTE_SIZE;
    const void *pLineEnd = memrchr(pcText, '\n', ulKeep);
    if (pLineEnd != nullptr) {
        ulKeep = static_cast<uint32_t>(static_cast<const char *>(pLineEnd) - pcText) + 1;
    }
    memcpy(szCut, pcText, ulKeep);
    const int lNote = snprintf(szCut + ulKeep, BP_CUT_NOTE_SIZE, "%s(answer cut: %u of %u bytes)",
                               pLineEnd != nullptr ? "" : "\n", ulKeep, ulLen);
    return ulKeep + static_cast<uint32_t>(lNote);
}

static BP_StructMsg BP_CreatAck(const char *pcText, uint32_t ulLen) {
    if (ulLen <= BP_ACK_TEXT_MAX) {
        return BP_CreatStructMsg(pcText, ulLen);
    }
    char szCut[BP_ACK_TEXT_MAX];
    const uint32_t ulCutLen = BP_CutText(pcText, ulLen, szCut);
    return BP_CreatStructMsg(szCut, ulCutLen);
}

uint32_t BP_SendAckMsg(const BP_StructMsg *pstReq, const char *pcText, uint32_t ulLen) {
    if (pstReq == nullptr || pstReq->pstSlabBuf == nullptr || pstReq->pstSlabBuf->pucData == nullptr ||
        pcText == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    const BP_MsgHdr *pstReqHdr = BP_MsgHdrOf(pstReq->pstSlabBuf);
    BP_ModuleInfo *pstSrc = BP_GetModuleByID(pstReqHdr->ulModuleDstID);
    if (pstSrc == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MODULE, "[%s]invalid module id %x.", __func__, pstReqHdr->ulModuleDstID);
        return BP_ERR_NO_MODULE;
    }
    BP_StructMsg stAck = BP_CreatAck(pcText, ulLen);
    if (stAck.pstSlabBuf == nullptr) {
        stAck = BP_CreatStructMsg(g_szOperateFail, static_cast<uint32_t>(strlen(g_szOperateFail)));
    }
    if (stAck.pstSlabBuf == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]no buffer for the answer to %u.", __func__, pstReqHdr->ulMsgCode);
        return BP_ERR_FAIL;
    }
    BP_FillMsgHdr(stAck.pstSlabBuf, BP_MSG_TYPE_ACK, pstReqHdr->ulMsgCode, pstReqHdr->ulModuleDstID,
                  pstReqHdr->ulModuleSrcID);
    // The requester's own words: its process cannot be looked up by a module ID that every process has.
    BP_MsgHdr *pstHdr = BP_MsgHdrOf(stAck.pstSlabBuf);
    pstHdr->AssiMsgId = pstReqHdr->AssiMsgId;
    pstHdr->usSrcProcID = pstSrc->usProcID;
    pstHdr->usDstProcID = pstReqHdr->usSrcProcID;
    pstHdr->ulPeerIP = pstReqHdr->ulPeerIP;
    pstHdr->usPeerPort = pstReqHdr->usPeerPort;
    const uint32_t ulRet = BP_SendMsgProc(pstSrc, &stAck);
    BP_EraseMsgData(&stAck);
    return ulRet;
}
