#include "bp/bp_module/socket.h"

#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bp/bp_log/log.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"

static void BP_CloseFd(int *plFd) {
    if (*plFd >= 0) {
        close(*plFd);
    }
    *plFd = -1;
}

void BP_CloseTransport() {
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    BP_CloseFd(&pstProc->lEpollFd);
    BP_CloseFd(&pstProc->lSocket);
    pstProc->lSendSocket = -1;
}

uint32_t BP_SetSocketProperty(int lSocket, uint32_t ulSockType) {
    (void)ulSockType;
    if (lSocket < 0) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]lSocket = %d is invalid!", __func__, lSocket);
        return BP_ERR_PARAM;
    }
    int lOn = 1;
    if (ioctl(lSocket, FIONBIO, &lOn) != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]ioctl socket failed", __func__);
        return BP_ERR_FAIL;
    }
    if (setsockopt(lSocket, SOL_SOCKET, SO_REUSEADDR, &lOn, sizeof(lOn)) != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]setsockopt SO_REUSERADDR failed", __func__);
        return BP_ERR_FAIL;
    }
    struct linger stLinger = {0, 1};
    if (setsockopt(lSocket, SOL_SOCKET, SO_LINGER, &stLinger, sizeof(stLinger)) != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]setsockopt SO_LINGER failed", __func__);
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

static bool BP_BindSocket(int lSocket, uint32_t ulLocIP, uint16_t usLocPort) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usLocPort);
    stAddr.sin_addr.s_addr = htonl(ulLocIP);
    return bind(lSocket, reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) == 0;
}

// Sets up the open socket; a failure is logged, closing is the caller's.
static bool BP_PrepareSocket(int lSocket, uint32_t ulSockType, uint32_t ulLocIP, uint16_t usLocPort) {
    static constexpr char szFunc[] = "BP_InitSocket";
    if (BP_SetSocketProperty(lSocket, ulSockType) != BP_OK) {
        BP_LOG_WARN(BP_ERR_FAIL, "[%s]BP_SetSocketProperty fail.", szFunc);
        return false;
    }
    if (usLocPort != 0 && !BP_BindSocket(lSocket, ulLocIP, usLocPort)) {
        BP_LOG_WARN(BP_ERR_FAIL, "[%s]socket bind failed usLocPort = ;%d", szFunc, static_cast<int>(usLocPort));
        return false;
    }
    struct epoll_event stEvent = {};
    stEvent.events = BP_PaceSocketEvents();
    stEvent.data.fd = lSocket;
    if (epoll_ctl(BP_GetProcInfo()->lEpollFd, EPOLL_CTL_ADD, lSocket, &stEvent) != 0) {
        BP_LOG_WARN(BP_ERR_FAIL, "[%s]fail to add socket to epoll.", szFunc);
        return false;
    }
    return true;
}

uint32_t BP_InitSocket(uint32_t ulSockMode, uint32_t ulSockType, uint32_t ulLocIP, uint16_t usLocPort,
                       uint32_t ulRemoteIP, uint16_t usRemotePort) {
    (void)ulRemoteIP;
    (void)usRemotePort;
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    const bool bSupported = ulSockMode == BP_SOCK_MODE_LOCAL && ulSockType == BP_SOCK_TYPE_DGRAM;
    pstProc->lSocket = bSupported ? socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0) : -1;
    if (pstProc->lSocket < 0) {
        BP_LOG_WARN(BP_ERR_FAIL, "[%s]fail to create socket.", __func__);
        pstProc->lSocket = -1;
        return BP_ERR_FAIL;
    }
    if (!BP_PrepareSocket(pstProc->lSocket, ulSockType, ulLocIP, usLocPort)) {
        BP_CloseFd(&pstProc->lSocket);
        return BP_ERR_FAIL;
    }
    pstProc->lSendSocket = pstProc->lSocket;
    return BP_OK;
}
