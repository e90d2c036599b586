#include "bp/bp_module/regist.h"

#include <cstring>
#include <initializer_list>

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/main_thread.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/module_thread.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

static constexpr char g_szRegistFunc[] = "BP_RegistModule";
static constexpr uint32_t BP_MODULE_NAME_MAX = 254;

static bool BP_IsPoolExhausted() {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    return stCtrl.stFreeList.Empty();
}

static void BP_InitModule(BP_ModuleInfo *pstModule, const BP_ModuleConfig *pstRow) {
    memcpy(pstModule->szModuleName, pstRow->szModuleName, sizeof(pstModule->szModuleName));
    pstModule->ulModuleID = pstRow->ulModuleID;
    pstModule->usProcID = BP_Read(pstRow->usProcID);
    pstModule->bExempt = BP_IsExemptName(pstModule->szModuleName);
    BP_Write(pstModule->ulUsed, 1U);
    BP_Write(pstModule->ulAssiMsgSeq, 0U);
    BP_Write<pthread_t>(pstModule->ulThreadID, 0);
    BP_InitMsgProcTable(&pstModule->stMsgProcCtrl, pstModule->astMsgProc);
    BP_InitMsgProcTable(&pstModule->stInnerProcCtrl, pstModule->astInnerProc);
    pstModule->stMsgQueue.Init(BP_NO_LIMIT);
    pstModule->stAckQueue.Init(BP_NO_LIMIT);
    pstModule->stTimerQueue.Init(BP_TIMER_QUEUE_NUM);
    pstModule->stAckWaitList.Init();
    for (std::atomic<uint32_t> *pulCount :
         {&pstModule->ulLastSendMsg, &pstModule->ulLastRecvMsg, &pstModule->ulSendCnt, &pstModule->ulRecvCnt}) {
        BP_Write(*pulCount, 0U);
    }
    pstModule->semWakeup.Init(0);
}

static int BP_StartThread(BP_ModuleInfo *pstModule) {
    pthread_t ulThread;
    const bool bMain = pstModule->ulModuleID == BP_MODULE_ID_MAIN;
    BP_Write(pstModule->ulStarted, 1U);
    const int lErr =
        pthread_create(&ulThread, nullptr, bMain ? BP_MainThreadProcMain : BP_ThreadProcMain, pstModule);
    if (lErr == 0) {
        BP_Write(pstModule->ulThreadID, ulThread);
    }
    return lErr;
}

enum BP_REGIST { BP_REGIST_DONE, BP_REGIST_NO_RECORD, BP_REGIST_MAIN_TWICE, BP_REGIST_NO_THREAD };

// All of it under the pool's lock: a record that look-ups have found never goes away again, because it is
// published only once its thread runs, and that thread does nothing before (BP_BindModuleThread).
static BP_REGIST BP_AddModule(const BP_ModuleConfig *pstRow, int *plErr) {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    // There is one socket and one ring, so there must not be a second thread that serves them.
    if (pstRow->ulModuleID == BP_MODULE_ID_MAIN && BP_GetModuleByID(BP_MODULE_ID_MAIN) != nullptr) {
        return BP_REGIST_MAIN_TWICE;
    }
    BP_ModuleInfo *pstModule = stCtrl.stFreeList.PopFront();
    if (pstModule == nullptr) {
        return BP_REGIST_NO_RECORD;
    }
    BP_InitModule(pstModule, pstRow);
    *plErr = BP_StartThread(pstModule);
    if (*plErr != 0) {
        BP_Write(pstModule->ulUsed, 0U);
        stCtrl.stFreeList.PushFront(pstModule);
        return BP_REGIST_NO_THREAD;
    }
    BP_PublishModule(pstModule);
    return BP_REGIST_DONE;
}

// The row of a module that may be registered here; null, with its line, for any other.
static const BP_ModuleConfig *BP_FindOwnRow(const char *pcName, uint32_t *pulModuleID) {
    const uint16_t usOwnProcID = BP_GetProcInfo()->usProcID;
    BP_ModuleConfig *pstRow = BP_GetModuleConfigByName(pcName);
    if (pstRow == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to find module info by name %s.", g_szRegistFunc, pcName);
        return nullptr;
    }
    if (BP_Read(pstRow->usProcID) == 0) {
        BP_Write(pstRow->usProcID, usOwnProcID);
    }
    if (pulModuleID != nullptr) {
        *pulModuleID = pstRow->ulModuleID;
    }
    if (BP_Read(pstRow->usProcID) != usOwnProcID) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]cur proc id %d != module proc id %d", g_szRegistFunc,
                     static_cast<int>(usOwnProcID), static_cast<int>(BP_Read(pstRow->usProcID)));
        return nullptr;
    }
    return pstRow;
}

uint32_t BP_RegistModule(const char *pcName, uint32_t ulUnused, uint32_t *pulModuleID) {
    (void)ulUnused;
    if (pcName == nullptr || strnlen(pcName, BP_MODULE_NAME_MAX + 1) > BP_MODULE_NAME_MAX) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    if (BP_IsPoolExhausted()) {
        BP_LOG_ERROR(BP_ERR_FAIL, "there is no free module struct");
        return BP_ERR_FAIL;
    }
    const BP_ModuleConfig *pstRow = BP_FindOwnRow(pcName, pulModuleID);
    if (pstRow == nullptr) {
        return BP_ERR_FAIL;
    }
    int lErr = 0;
    switch (BP_AddModule(pstRow, &lErr)) {
    case BP_REGIST_DONE:
        return BP_OK;
    case BP_REGIST_NO_RECORD:
        BP_LOG_ERROR(BP_ERR_FAIL, "there is no free module struct");
        break;
    case BP_REGIST_MAIN_TWICE:
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]main module %s is registered already.", __func__, pcName);
        break;
    case BP_REGIST_NO_THREAD:
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]pthread_create fail err:%d", __func__, lErr);
        break;
    }
    return BP_ERR_FAIL;
}
