#include "bp/bp_module/proc_init.h"

#include <arpa/inet.h>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/recv_ring.h"
#include "bp/bp_module/regist.h"
#include "bp/bp_module/slab.h"
#include "bp/bp_module/socket.h"
#include "bp/bp_timer/timer_pool.h"

static constexpr char g_szInitFunc[] = "BP_ProcInit";
static constexpr char g_szCmdSuffix[] = "_cmd";
static constexpr uint32_t BP_CMD_NAME_SIZE = 64;
static constexpr int BP_EPOLL_SIZE = 256;

static std::atomic<bool> g_bStarted{false};
static BP_PfnStart g_apfnStart[BP_MAX_START_HOOK_NUM];

uint32_t BP_AddStartHook(BP_PfnStart pfnStart) {
    for (BP_PfnStart &pfnOwn : g_apfnStart) {
        if (pfnOwn == nullptr || pfnOwn == pfnStart) {
            pfnOwn = pfnStart;
            return BP_OK;
        }
    }
    return BP_ERR_FAIL;
}

static uint32_t BP_CallStartHooks() {
    for (const BP_PfnStart pfnStart : g_apfnStart) {
        if (pfnStart != nullptr && pfnStart() != BP_OK) {
            BP_LOG_ERROR(BP_ERR_FAIL, "[%s]start hook failed.", g_szInitFunc);
            return BP_ERR_FAIL;
        }
    }
    return BP_OK;
}

static uint32_t BP_FailTransport(const char *pcWhat) {
    BP_ClosePace();
    BP_CloseTransport();
    BP_LOG_ERROR(BP_ERR_FAIL, "[%s]%s", g_szInitFunc, pcWhat);
    return BP_ERR_FAIL;
}

static uint32_t BP_InitTransport(BP_ProcInfo *pstProc, const BP_ProcConfig *pstRow) {
    pstProc->lEpollFd = BP_CreateEpoll(BP_EPOLL_SIZE);
    if (pstProc->lEpollFd < 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to create epoll.", g_szInitFunc);
        pstProc->lEpollFd = -1;
        return BP_ERR_FAIL;
    }
    if (BP_InitPace() != BP_OK) {
        return BP_FailTransport("fail to init prompt delivery.");
    }
    BP_LOG_INFO("[%s]socket init %hu %s", g_szInitFunc, pstRow->usPort, pstRow->szIP);
    if (BP_InitSocket(BP_SOCK_MODE_LOCAL, BP_SOCK_TYPE_DGRAM, ntohl(inet_addr(pstRow->szIP)), pstRow->usPort, 0,
                      0) != BP_OK) {
        return BP_FailTransport("fail to init socket.");
    }
    return BP_OK;
}

static uint32_t BP_InitPools(BP_ProcInfo *pstProc) {
    BP_InitModulePool(true);
    BP_InitTimerPool();
    pstProc->stSendQueue.Init(BP_NO_LIMIT);
    pstProc->ulPeerAddrLen = sizeof(pstProc->stPeerAddr);
    pstProc->semRecvLock.Init(1);
    if (BP_InitRecvRing(&pstProc->stRecvRing) != BP_OK) {
        return BP_FailTransport("fail to get socket recv buffer.");
    }
    return BP_OK;
}

static uint32_t BP_RegistOwnModules(BP_ProcInfo *pstProc, const char *pcProcName) {
    char szCmdName[BP_CMD_NAME_SIZE];
    snprintf(szCmdName, sizeof(szCmdName), "%.59s%s", pcProcName, g_szCmdSuffix);
    if (BP_RegistModule(szCmdName, 1, &pstProc->ulCmdModuleID) != BP_OK) {
        return BP_FailTransport("fail to regist cmd module.");
    }
    // A failure from here on leaves everything in place: the command module's thread is there, and may use it.
    if (BP_CallStartHooks() != BP_OK) {
        return BP_ERR_FAIL;
    }
    if (strcmp(pcProcName, "MW_MWARE") == 0) {
        BP_LOG_WARN(0, "[%s]BP_RegistModule %s later!", g_szInitFunc, pcProcName);
        return BP_OK;
    }
    return BP_RegistModule(pcProcName, 1, &pstProc->ulMainModuleID);
}

uint32_t BP_ProcInit(const char *pcProcName, uint32_t ulProcID) {
    if (pcProcName == nullptr || pcProcName[0] == '\0') {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]Param illegal, pcProcName:%p", __func__,
                     static_cast<const void *>(pcProcName));
        return BP_ERR_PARAM;
    }
    if (strlen(pcProcName) + sizeof(g_szCmdSuffix) > BP_CMD_NAME_SIZE) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]proc name too long: %s", __func__, pcProcName);
        return BP_ERR_PARAM;
    }
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    snprintf(pstProc->szProcName, sizeof(pstProc->szProcName), "%s", pcProcName);
    pstProc->usProcID = static_cast<uint16_t>(ulProcID);
    const BP_ProcConfig *pstRow = BP_GetProcNameByID(pstProc->usProcID);
    if (pstRow == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find process info by procid %hu.", __func__, pstProc->usProcID);
        return BP_ERR_FAIL;
    }
    if (BP_InitBufManager() != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to init buf manager.", __func__);
        return BP_ERR_FAIL;
    }
    if (BP_InitTransport(pstProc, pstRow) != BP_OK || BP_InitPools(pstProc) != BP_OK) {
        return BP_ERR_FAIL;
    }
    return BP_RegistOwnModules(pstProc, pcProcName);
}

uint32_t BP_MwareInit(const char *pcProcName, uint32_t ulProcID) {
    if (pcProcName == nullptr || pcProcName[0] == '\0') {
        printf("BP_MwareInit(): proc name invalid.\n");
        return BP_ERR_PARAM;
    }
    if (g_bStarted.exchange(true)) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]process has been started as '%s' already.", __func__,
                     BP_GetProcInfo()->szProcName);
        return BP_ERR_FAIL;
    }
    BP_GetProcInfo()->lStartTime = time(nullptr);
    BP_InitModulePool(false);
    BP_InitLog(pcProcName);
    if (BP_RegCmdModuleID("BP", 0, 0, BP_LOG_BP_MODULE_ID) != BP_OK) {
        BP_LOG_WARN(BP_ERR_FAIL, "[%s]fail to regist debug module: [%s] [%s] [].", __func__, "BP", "COMMU");
    }
    BP_LOG_INFO("[%s]current process name is '%s'.", __func__, pcProcName);
    const uint32_t ulRet = BP_ProcInit(pcProcName, ulProcID);
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to init process.", __func__);
        g_bStarted = ulRet != BP_ERR_PARAM; // a name that does not fit has set nothing up
        return ulRet == BP_ERR_PARAM ? BP_ERR_PARAM : BP_ERR_FAIL;
    }
    BP_LOG_INFO("[%s]BP_MwareInit succeed.", __func__);
    return BP_OK;
}
