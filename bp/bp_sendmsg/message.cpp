#include "bp/bp_sendmsg/message.h"

#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/slab.h"

BP_StructMsg BP_CreatStructMsg(const void *pucMem, uint32_t ulMemLen) {
    if (ulMemLen != 0 && pucMem == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param", __func__);
        return BP_StructMsg();
    }
    const uint32_t ulMsgLen = ulMemLen + BP_MSG_HDR_LEN;
    BP_SlabBuf *pstBuf = ulMsgLen > ulMemLen ? BP_SlabGetBuf(ulMsgLen, BP_SLAB_TYPE_MSG) : nullptr;
    if (pstBuf == nullptr) {
        BP_LOG_DEBUG("[%s]fail to get slab buffer(buffer size:%u).", __func__, ulMsgLen);
        return BP_StructMsg();
    }
    if (pstBuf->pucData == nullptr) {
        BP_LOG_DEBUG("[%s]invalid slab buffer.", __func__);
        BP_SlabFreeBuf(pstBuf);
        return BP_StructMsg();
    }
    BP_Write(pstBuf->usLen, static_cast<uint16_t>(ulMsgLen));
    if (pucMem != nullptr) {
        memcpy(pstBuf->pucData + BP_MSG_HDR_LEN, pucMem, ulMemLen);
    }
    return BP_StructMsg{0, 0, pstBuf};
}

void BP_FillMsgHdr(BP_SlabBuf *pstBuf, uint32_t ulMsgType, uint32_t ulMsgCode, uint32_t ulModuleSrcID,
                   uint32_t ulModuleDstID) {
    BP_MsgHdr *pstHdr = BP_MsgHdrOf(pstBuf);
    memcpy(pstHdr->aucPrefix, BP_MSG_PREFIX, BP_MSG_PREFIX_LEN);
    pstHdr->ulMsgType = ulMsgType;
    pstHdr->ulMsgCode = ulMsgCode;
    pstHdr->ulModuleSrcID = ulModuleSrcID;
    pstHdr->ulModuleDstID = ulModuleDstID;
    pstHdr->usMsgLen = BP_Read(pstBuf->usLen);
    pstHdr->usReserved = 0;
    pstHdr->ulPeerIP = 0;
    pstHdr->usPeerPort = 0;
}

uint32_t BP_ConfigMsgHdr(BP_StructMsg *pstMsg, uint32_t ulModuleSrcID, uint32_t ulModuleDstID,
                         uint32_t ulMsgCode, uint32_t ulMsgType) {
    if (pstMsg == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param.", __func__);
        return BP_ERR_PARAM;
    }
    BP_ModuleInfo *pstSrc = BP_GetModuleByID(ulModuleSrcID);
    if (pstSrc == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid ulModuleDstID:%u.", __func__, ulModuleSrcID);
        return BP_ERR_PARAM;
    }
    const BP_ModuleConfig *pstDst = BP_GetModuleConfigByID(ulModuleDstID);
    if (pstDst == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid ulModuleDstID:0x%x.", __func__, ulModuleDstID);
        return BP_ERR_PARAM;
    }
    if (pstMsg->pstSlabBuf == nullptr) {
        BP_LOG_DEBUG("[%s]invalid slab buffer.", __func__);
        return BP_ERR_PARAM;
    }
    if (pstMsg->pstSlabBuf->pucData == nullptr) {
        BP_LOG_DEBUG("[%s]invalid msg head buffer.", __func__);
        return BP_ERR_PARAM;
    }
    BP_FillMsgHdr(pstMsg->pstSlabBuf, ulMsgType, ulMsgCode, ulModuleSrcID, ulModuleDstID);
    BP_MsgHdr *pstHdr = BP_MsgHdrOf(pstMsg->pstSlabBuf);
    pstHdr->AssiMsgId = pstSrc->ulAssiMsgSeq.fetch_add(1, std::memory_order_relaxed);
    pstHdr->usSrcProcID = pstSrc->usProcID;
    pstHdr->usDstProcID = BP_Read(pstDst->usProcID);
    return BP_OK;
}

uint32_t BP_DecodeStructMsgData(const BP_StructMsg *pstMsg, uint8_t **ppucMemInter, uint32_t *pulMemLen) {
    if (pstMsg == nullptr || ppucMemInter == nullptr || pulMemLen == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param: pstMsg[%p] ppucMemInter[%p] pulMemLen[%p]",
                     __func__, static_cast<const void *>(pstMsg), static_cast<void *>(ppucMemInter),
                     static_cast<void *>(pulMemLen));
        return BP_ERR_PARAM;
    }
    const BP_SlabBuf *pstBuf = pstMsg->pstSlabBuf;
    if (pstBuf == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param", __func__);
        return BP_ERR_PARAM;
    }
    if (pstBuf->pucData == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid slab buffer.", __func__);
        return BP_ERR_PARAM;
    }
    const uint16_t usLen = BP_Read(pstBuf->usLen);
    if (usLen < BP_MSG_HDR_LEN) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid slab buffer len: %hu < %u.", __func__, usLen, BP_MSG_HDR_LEN);
        return BP_ERR_PARAM;
    }
    *ppucMemInter = pstBuf->pucData + BP_MSG_HDR_LEN;
    *pulMemLen = usLen - BP_MSG_HDR_LEN;
    return BP_OK;
}

void BP_EraseMsgData(BP_StructMsg *pstMsg) {
    if (pstMsg == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param", __func__);
        return;
    }
    if (pstMsg->pstSlabBuf == nullptr) {
        BP_LOG_DEBUG("[%s]invalid slab buffer.", __func__);
        return;
    }
    // A sent buffer may be anybody's by now; its state must not even be looked at.
    const bool bOwned = (pstMsg->ulFlags & BP_MSG_FLAG_SENT) == 0;
    if (bOwned && (BP_Read(pstMsg->pstSlabBuf->ucFlag) & BP_BUF_TIMEOUT) == 0 &&
        BP_SlabFreeBuf(pstMsg->pstSlabBuf) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]fail to free slab buffer", __func__);
    }
    *pstMsg = BP_StructMsg();
}

BP_StructMsg BP_KeepMsg(BP_StructMsg *pstMsg) {
    if (pstMsg == nullptr || pstMsg->pstSlabBuf == nullptr) {
        return BP_StructMsg();
    }
    BP_SlabEndMark(pstMsg->pstSlabBuf, BP_SlabMarkSeq(pstMsg->pstSlabBuf));
    pstMsg->ulFlags |= BP_MSG_FLAG_KEEP;
    return BP_StructMsg{0, 0, pstMsg->pstSlabBuf};
}
