#include "bp/bp_module/recv_ring.h"

#include <cstdlib>
#include <cstring>

#include "bp/bp_clock.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/ack_wait.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"

static constexpr char g_szTransFunc[] = "BP_TransMsgToModule";

uint32_t BP_InitRecvRing(BP_RecvRing *pstRing) {
    *pstRing = BP_RecvRing();
    pstRing->pucBuf = static_cast<uint8_t *>(calloc(1, BP_RECV_RING_SIZE));
    if (pstRing->pucBuf == nullptr) {
        return BP_ERR_FAIL;
    }
    pstRing->ulMaxSize = BP_RECV_RING_SIZE;
    pstRing->ulFreeLen = BP_RECV_RING_SIZE;
    return BP_OK;
}

// Copies the oldest ulLen unread bytes without consuming them.
static void BP_RingPeek(const BP_RecvRing *pstRing, void *pDst, uint32_t ulLen) {
    const uint32_t ulTail = pstRing->ulMaxSize - pstRing->ulRdPos;
    const uint32_t ulFirst = ulLen < ulTail ? ulLen : ulTail;
    memcpy(pDst, pstRing->pucBuf + pstRing->ulRdPos, ulFirst);
    memcpy(static_cast<uint8_t *>(pDst) + ulFirst, pstRing->pucBuf, ulLen - ulFirst);
}

void BP_RingTakeIn(BP_RecvRing *pstRing, uint32_t ulLen, const struct sockaddr_in &stFrom) {
    pstRing->ulWrPos = (pstRing->ulWrPos + ulLen) % pstRing->ulMaxSize;
    pstRing->ulFreeLen -= ulLen;
    pstRing->ulUsedLen += ulLen;
    BP_AddSource(&pstRing->stSources, ulLen, stFrom);
}

static void BP_RingConsume(BP_RecvRing *pstRing, uint32_t ulLen) {
    pstRing->ulRdPos = (pstRing->ulRdPos + ulLen) % pstRing->ulMaxSize;
    pstRing->ulUsedLen -= ulLen;
    pstRing->ulFreeLen += ulLen;
    BP_DropSource(&pstRing->stSources, ulLen);
}

static void BP_RingReset(BP_RecvRing *pstRing) {
    pstRing->ulRdPos = 0;
    pstRing->ulWrPos = 0;
    pstRing->ulUsedLen = 0;
    pstRing->ulFreeLen = pstRing->ulMaxSize;
    pstRing->stSources.ulNum = 0;
}

void BP_GetNextMsgHdr(BP_RecvRing *pstRing) {
    if (pstRing == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param.", __func__);
        return;
    }
    while (pstRing->ulUsedLen >= BP_MSG_PREFIX_LEN) {
        uint8_t aucFound[BP_MSG_PREFIX_LEN];
        BP_RingPeek(pstRing, aucFound, BP_MSG_PREFIX_LEN);
        if (memcmp(aucFound, BP_MSG_PREFIX, BP_MSG_PREFIX_LEN) == 0) {
            return;
        }
        BP_RingConsume(pstRing, 1);
    }
}

// Checks the framing of the header at the read position. A length that no message can have costs the prefix, or
// the search for the next one would stop at the same place for ever.
static bool BP_AcceptHdr(BP_RecvRing *pstRing, const BP_MsgHdr &stHdr) {
    const uint8_t *pucFound = stHdr.aucPrefix;
    if (memcmp(pucFound, BP_MSG_PREFIX, BP_MSG_PREFIX_LEN) != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]Prefix err:0x%x 0x%x 0x%x 0x%x != 0x%x 0x%x 0x%x 0x%x", g_szTransFunc,
                     pucFound[0], pucFound[1], pucFound[2], pucFound[3], BP_MSG_PREFIX[0], BP_MSG_PREFIX[1],
                     BP_MSG_PREFIX[2], BP_MSG_PREFIX[3]);
        return false;
    }
    if (stHdr.usMsgLen < BP_MSG_HDR_LEN) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]ulMsgLen %hu <= %u", g_szTransFunc, stHdr.usMsgLen, BP_MSG_HDR_LEN);
        BP_RingConsume(pstRing, BP_MSG_PREFIX_LEN);
        return false;
    }
    if (stHdr.usMsgLen > pstRing->ulMaxSize) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]ulMsgLen %hu > %u", g_szTransFunc, stHdr.usMsgLen, pstRing->ulMaxSize);
        BP_RingConsume(pstRing, BP_MSG_PREFIX_LEN);
        return false;
    }
    return true;
}

// Moves the message at the read position into a buffer of its own; null when there is none to be had.
static BP_SlabBuf *BP_TakeMsg(BP_RecvRing *pstRing, uint16_t usMsgLen) {
    BP_SlabBuf *pstBuf = BP_SlabGetBuf(usMsgLen, BP_SLAB_TYPE_MSG);
    if (pstBuf == nullptr) {
        return nullptr;
    }
    if (pstBuf->pucData == nullptr) {
        BP_SlabFreeBuf(pstBuf);
        return nullptr;
    }
    BP_RingPeek(pstRing, pstBuf->pucData, usMsgLen);
    BP_Write(pstBuf->usLen, usMsgLen);
    const struct sockaddr_in stFrom =
        BP_SourceAt(&pstRing->stSources, usMsgLen - 1U, BP_GetProcInfo()->stPeerAddr);
    BP_MsgHdrOf(pstBuf)->usPeerPort = stFrom.sin_port;
    BP_MsgHdrOf(pstBuf)->ulPeerIP = stFrom.sin_addr.s_addr;
    BP_RingConsume(pstRing, usMsgLen);
    if (pstRing->ulUsedLen == 0) {
        BP_RingReset(pstRing);
    }
    return pstBuf;
}

static uint32_t BP_Deliver(BP_ModuleInfo *pstDst, BP_SlabBuf *pstBuf, const BP_MsgHdr &stHdr,
                           uint32_t *pulResult) {
    const uint32_t ulRet = stHdr.ulMsgType == BP_MSG_TYPE_ACK ? BP_AddAnswer(pstDst, pstBuf)
                                                              : BP_ModuleAddMsg(&pstDst->stMsgQueue, pstBuf);
    *pulResult = BP_TRANS_DONE;
    if (ulRet != BP_OK) {
        *pulResult = BP_TRANS_ADD_FAIL;
        BP_SlabFreeBuf(pstBuf);
    }
    if (BP_IsForMainThread(stHdr)) {
        BP_PaceQueued();
    }
    BP_WakeupRecord(pstDst);
    return ulRet;
}

uint32_t BP_TransMsgToModule(uint32_t *pulResult) {
    BP_RecvRing *pstRing = &BP_GetProcInfo()->stRecvRing;
    if (pulResult == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input param.", __func__);
        return BP_ERR_PARAM;
    }
    *pulResult = BP_TRANS_DONE;
    if (pstRing->ulRdPos >= pstRing->ulMaxSize) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]ulRdPos %u >= ulMaxSize %u", __func__, pstRing->ulRdPos,
                     pstRing->ulMaxSize);
        BP_RingReset(pstRing); // nothing in the ring can be trusted, and no search would ever end
        return BP_ERR_FAIL;
    }
    if (pstRing->ulUsedLen < BP_MSG_HDR_LEN) {
        *pulResult = BP_TRANS_INCOMPLETE;
        return 0;
    }
    BP_MsgHdr stHdr;
    BP_RingPeek(pstRing, &stHdr, BP_MSG_HDR_LEN);
    if (!BP_AcceptHdr(pstRing, stHdr)) {
        return BP_ERR_FAIL;
    }
    if (stHdr.usMsgLen > pstRing->ulUsedLen) {
        *pulResult = BP_TRANS_INCOMPLETE;
        return 0;
    }
    BP_ModuleInfo *pstDst = BP_GetModuleByID(stHdr.ulModuleDstID);
    if (pstDst == nullptr) {
        BP_RingConsume(pstRing, stHdr.usMsgLen);
        return 0;
    }
    BP_SlabBuf *pstBuf = BP_TakeMsg(pstRing, stHdr.usMsgLen);
    if (pstBuf == nullptr) {
        *pulResult = BP_TRANS_NO_BUF;
        return 0;
    }
    return BP_Deliver(pstDst, pstBuf, stHdr, pulResult);
}

// Notes since when the oldest message has been waiting for its rest.
static void BP_NoteHead(BP_RecvRing *pstRing, uint32_t ulResult, bool bNewHead) {
    if (ulResult != BP_TRANS_INCOMPLETE || pstRing->ulUsedLen == 0) {
        pstRing->lHeldSinceMs = 0;
    } else if (bNewHead || pstRing->lHeldSinceMs == 0) {
        pstRing->lHeldSinceMs = BP_NowMs();
    }
}

static uint32_t BP_CutSome(BP_RecvRing *pstRing, bool *pbConsumed) {
    uint32_t ulResult = BP_TRANS_DONE;
    for (;;) {
        if (BP_TransMsgToModule(&ulResult) != 0) {
            BP_GetNextMsgHdr(pstRing);
        } else if (ulResult != BP_TRANS_DONE) {
            return ulResult;
        }
        *pbConsumed = true;
    }
}

uint32_t BP_CutMessages() {
    BP_RecvRing *pstRing = &BP_GetProcInfo()->stRecvRing;
    if (pstRing->ulMaxSize == 0) {
        return BP_TRANS_INCOMPLETE; // not set up yet
    }
    bool bConsumed = false;
    const uint32_t ulResult = BP_CutSome(pstRing, &bConsumed);
    pstRing->bNoBuf = ulResult == BP_TRANS_NO_BUF;
    BP_NoteHead(pstRing, ulResult, bConsumed);
    return ulResult;
}

void BP_GiveUpHead(BP_RecvRing *pstRing) {
    BP_LOG_ERROR(BP_ERR_FAIL, "[%s]give up incomplete msg, %u bytes are there.", __func__, pstRing->ulUsedLen);
    pstRing->lHeldSinceMs = 0; // what stands behind it has a time of its own
    if (pstRing->ulUsedLen >= BP_MSG_PREFIX_LEN) {
        BP_RingConsume(pstRing, BP_MSG_PREFIX_LEN);
        BP_GetNextMsgHdr(pstRing);
    }
    if (pstRing->ulUsedLen < BP_MSG_PREFIX_LEN) {
        BP_RingReset(pstRing);
    }
}
