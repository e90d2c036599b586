#include "bp/bp_module/regist.h"

#include <cstring>
#include <initializer_list>

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/main_thread.h"
#include "bp/bp_module/module_thread.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

static constexpr char g_szRegistFunc[] = "BP_RegistModule";
static constexpr uint32_t BP_MODULE_NAME_MAX = 254;

static bool BP_IsPoolExhausted() {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    return stCtrl.stFreeList.Empty();
}

static BP_ModuleInfo *BP_TakeModule() {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    return stCtrl.stFreeList.PopFront();
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

// The record is complete before look-ups can find it.
static void BP_PublishModule(BP_ModuleInfo *pstModule) {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    stCtrl.stUsedList.PushFront(pstModule);
    BP_Write(pstModule->ulStarted, 1U);
}

// Nobody will ever serve what was queued between publication and the failed start.
static void BP_DropQueued(BP_ModuleInfo *pstModule) {
    for (BP_ListCtrl *pstQueue : {&pstModule->stMsgQueue, &pstModule->stAckQueue, &pstModule->stTimerQueue}) {
        BP_SlabBuf *pstBuf = BP_ModuleGetMsg(pstQueue, BP_GET_FIRST, 0);
        while (pstBuf != nullptr) {
            BP_SlabFreeBuf(pstBuf);
            pstBuf = BP_ModuleGetMsg(pstQueue, BP_GET_FIRST, 0);
        }
    }
}

static void BP_ReturnModule(BP_ModuleInfo *pstModule) {
    BP_ListCtrlOf<BP_ModuleInfo> &stCtrl = BP_GetProcInfo()->stModuleCtrl;
    {
        const BP_SemGuard stGuard(stCtrl.semLock);
        BP_Write(pstModule->ulUsed, 0U);
        BP_List<BP_ModuleInfo>::Remove(pstModule);
    }
    BP_DropQueued(pstModule);
    const BP_SemGuard stGuard(stCtrl.semLock);
    stCtrl.stFreeList.PushFront(pstModule);
}

static uint32_t BP_StartModule(BP_ModuleInfo *pstModule) {
    pthread_t ulThread;
    const bool bMain = pstModule->ulModuleID == BP_MODULE_ID_MAIN;
    const int lErr =
        pthread_create(&ulThread, nullptr, bMain ? BP_MainThreadProcMain : BP_ThreadProcMain, pstModule);
    if (lErr != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]pthread_create fail err:%d", g_szRegistFunc, lErr);
        BP_ReturnModule(pstModule);
        return BP_ERR_FAIL;
    }
    BP_Write(pstModule->ulThreadID, ulThread);
    return BP_OK;
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
    BP_ModuleInfo *pstModule = BP_TakeModule();
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "there is no free module struct");
        return BP_ERR_FAIL;
    }
    BP_InitModule(pstModule, pstRow);
    BP_PublishModule(pstModule);
    return BP_StartModule(pstModule);
}
