#include "bp/bp_sendmsg/socket_send.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_sendmsg/message.h"

// A process without a port of its own is answered where its request came from.
static struct sockaddr_in BP_DestAddr(const BP_ProcConfig *pstProc, const BP_MsgHdr *pstHdr) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    if (pstProc->usPort != 0) {
        stAddr.sin_port = htons(pstProc->usPort);
        stAddr.sin_addr.s_addr = inet_addr(pstProc->szIP);
    } else {
        stAddr.sin_port = pstHdr->usPeerPort;
        stAddr.sin_addr.s_addr = pstHdr->ulPeerIP;
    }
    return stAddr;
}

static uint32_t BP_SendBuf(BP_SlabBuf *pstBuf) {
    static constexpr char szFunc[] = "BP_MsgSocketSendProc";
    if (pstBuf->pucData == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid msg head buffer.", szFunc);
        return BP_ERR_FAIL;
    }
    const BP_MsgHdr *pstHdr = BP_MsgHdrOf(pstBuf);
    const BP_ProcConfig *pstProc = BP_GetProcNameByID(pstHdr->usDstProcID);
    if (pstProc == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid ulDstProcID:%d.", szFunc, static_cast<int>(pstHdr->usDstProcID));
        return BP_ERR_FAIL;
    }
    const struct sockaddr_in stAddr = BP_DestAddr(pstProc, pstHdr);
    BP_LOG_DEBUG("[%s]send msg to %x:%x.", szFunc, stAddr.sin_addr.s_addr,
                 static_cast<unsigned>(stAddr.sin_port));
    const uint16_t usLen = BP_Read(pstBuf->usLen);
    const ssize_t lSent = sendto(BP_GetProcInfo()->lSendSocket, pstBuf->pucData, usLen, 0,
                                 reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
    if (lSent != usLen) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to send msg by socket.", szFunc);
    }
    return BP_OK;
}

uint32_t BP_MsgSocketSendProc() {
    uint32_t ulRet = BP_OK;
    for (uint32_t ulLeft = BP_QueueLength(&BP_GetProcInfo()->stSendQueue); ulRet == BP_OK && ulLeft != 0;
         ulLeft--) {
        BP_SlabBuf *pstBuf = BP_ModuleGetMsg(&BP_GetProcInfo()->stSendQueue, BP_GET_FIRST, 0);
        if (pstBuf == nullptr) {
            break;
        }
        ulRet = BP_SendBuf(pstBuf);
        BP_SlabFreeBuf(pstBuf);
    }
    return ulRet;
}
