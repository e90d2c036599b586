#include "bp/bp_module/receive.h"

#include <cerrno>
#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include "bp/bp_clock.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/recv_ring.h"

static uint32_t BP_ReportReadError(int lErr) {
    BP_LOG_ERROR(BP_ERR_FAIL, "[%s]read from socket fail errcode:%d(%s).", "BP_GetAndDispatchMsg", lErr,
                 strerror(lErr));
    return BP_ERR_FAIL;
}

// A socket without a fixed port listens on every address of the device once it has sent, but the bus ends at
// the device: what comes from elsewhere is no traffic of its own.
static bool BP_IsFromLoopback(const struct sockaddr_in &stFrom) {
    return stFrom.sin_family == AF_INET && ntohl(stFrom.sin_addr.s_addr) >> IN_CLASSA_NSHIFT == IN_LOOPBACKNET;
}

// Reads one datagram into the free room, over the end of the storage if need be; one that does not fit is
// discarded. 0, or the error that ended the read.
static int BP_ReadDatagram(BP_ProcInfo *pstProc) {
    BP_RecvRing *pstRing = &pstProc->stRecvRing;
    const uint32_t ulTail = pstRing->ulMaxSize - pstRing->ulWrPos;
    const uint32_t ulFirst = pstRing->ulFreeLen < ulTail ? pstRing->ulFreeLen : ulTail;
    struct iovec astPiece[] = {{pstRing->pucBuf + pstRing->ulWrPos, ulFirst},
                               {pstRing->pucBuf, pstRing->ulFreeLen - ulFirst}};
    struct sockaddr_in stFrom = {};
    struct msghdr stMsg = {};
    stMsg.msg_name = &stFrom;
    stMsg.msg_namelen = pstProc->ulPeerAddrLen;
    stMsg.msg_iov = astPiece;
    stMsg.msg_iovlen = 2;
    const ssize_t lRead = recvmsg(pstProc->lSocket, &stMsg, MSG_TRUNC);
    if (lRead < 0) {
        return errno;
    }
    pstProc->stPeerAddr = stFrom;
    if (!BP_IsFromLoopback(stFrom)) {
        BP_LOG_DEBUG("[%s]drop datagram from %x.", "BP_GetAndDispatchMsg", stFrom.sin_addr.s_addr);
    } else if (lRead > static_cast<ssize_t>(pstRing->ulFreeLen)) {
        BP_ReportReadError(EMSGSIZE);
    } else if (lRead > 0) {
        BP_RingTakeIn(pstRing, static_cast<uint32_t>(lRead), stFrom);
    }
    return 0;
}

// The next datagram is worth more than the beginning of a message that takes up its room. Looking at its length
// costs a call of its own, but only while something incomplete is there.
static void BP_MakeRoom(BP_ProcInfo *pstProc) {
    BP_RecvRing *pstRing = &pstProc->stRecvRing;
    if (pstRing->ulUsedLen == 0) {
        return;
    }
    struct sockaddr_in stFrom = {};
    socklen_t ulFromLen = sizeof(stFrom);
    const ssize_t lNext = recvfrom(pstProc->lSocket, nullptr, 0, MSG_PEEK | MSG_TRUNC,
                                   reinterpret_cast<struct sockaddr *>(&stFrom), &ulFromLen);
    if (lNext > static_cast<ssize_t>(pstRing->ulMaxSize) || !BP_IsFromLoopback(stFrom)) {
        return;
    }
    while (!pstRing->bNoBuf && lNext > static_cast<ssize_t>(pstRing->ulFreeLen)) {
        BP_GiveUpHead(pstRing);
        BP_CutMessages();
    }
}

static bool BP_IsStale(const BP_RecvRing *pstRing) {
    return pstRing->lHeldSinceMs != 0 && BP_NowMs() - pstRing->lHeldSinceMs > BP_RECV_HOLD_MS;
}

static void BP_GiveUpStale(BP_RecvRing *pstRing) {
    while (BP_IsStale(pstRing)) {
        BP_GiveUpHead(pstRing);
        BP_CutMessages();
    }
}

// What has waited too long for its rest is given up only now: a main thread that was busy finds the rest in the
// socket.
static uint32_t BP_EndReading(BP_RecvRing *pstRing, int lErr, bool bMayBeEmpty) {
    if (lErr == EAGAIN) {
        BP_GiveUpStale(pstRing);
    }
    return bMayBeEmpty && lErr == EAGAIN ? BP_OK : BP_ReportReadError(lErr);
}

uint32_t BP_GetAndDispatchMsg() {
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    BP_RecvRing *pstRing = &pstProc->stRecvRing;
    // The socket is edge-triggered: it must be read until it is empty, or what came together with one datagram
    // would wait for the next. That it is empty then is no failure.
    bool bMayBeEmpty = pstRing->bNoBuf || pstRing->bUnread || BP_IsStale(pstRing);
    pstRing->bUnread = false;
    if (pstRing->bNoBuf) {
        BP_CutMessages();
    }
    for (;;) {
        BP_MakeRoom(pstProc);
        if (pstRing->bNoBuf) {
            return BP_OK;
        }
        const int lErr = BP_ReadDatagram(pstProc);
        if (lErr == EINTR) {
            continue;
        }
        if (lErr != 0) {
            return BP_EndReading(pstRing, lErr, bMayBeEmpty);
        }
        bMayBeEmpty = true;
        BP_CutMessages();
        if (!BP_PaceMayReadOn()) {
            pstRing->bUnread = true;
            return BP_OK;
        }
    }
}

bool BP_IsReceivePending() {
    return BP_GetProcInfo()->stRecvRing.bUnread;
}

void BP_ResumeReceive() {
    const BP_RecvRing *pstRing = &BP_GetProcInfo()->stRecvRing;
    if (pstRing->bNoBuf || BP_IsStale(pstRing)) {
        BP_GetAndDispatchMsg();
    }
}
