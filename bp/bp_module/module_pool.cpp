#include "bp/bp_module/module_pool.h"

#include "bp/bp_log/log.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/proc_info.h"

void BP_InitModulePool(bool bFill) {
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    pstProc->stModuleCtrl.Init(BP_MAX_MODULE_NUM);
    BP_Write<BP_ModuleInfo *>(pstProc->pstNewestModule, nullptr);
    for (uint32_t i = 0; bFill && i < BP_MAX_MODULE_NUM; i++) {
        if (BP_Read(pstProc->astModule[i].ulUsed) == 0) {
            pstProc->stModuleCtrl.stFreeList.PushFront(&pstProc->astModule[i]);
        }
    }
}

void BP_PublishModule(BP_ModuleInfo *pstModule) {
    BP_ProcInfo *pstProc = BP_GetProcInfo();
    pstProc->stModuleCtrl.stUsedList.PushFront(pstModule);
    pstProc->pstNewestModule.store(pstModule, std::memory_order_release);
}

// The youngest registered record that the predicate accepts. The link to the next older one never changes,
// since the list only grows at its front.
template <typename Match>
static BP_ModuleInfo *BP_FindModule(Match match) {
    const BP_ProcInfo *pstProc = BP_GetProcInfo();
    BP_ModuleInfo *pstModule = pstProc->pstNewestModule.load(std::memory_order_acquire);
    while (pstModule != nullptr && !match(*pstModule)) {
        pstModule = pstProc->stModuleCtrl.stUsedList.Next(pstModule);
    }
    return pstModule;
}

BP_ModuleInfo *BP_GetModuleByID(uint32_t ulModuleID) {
    return BP_FindModule([=](const BP_ModuleInfo &stModule) { return stModule.ulModuleID == ulModuleID; });
}

// Known, not searched for: every buffer that is taken asks.
static thread_local BP_ModuleInfo *g_pstThreadModule;

void BP_SetThreadModule(BP_ModuleInfo *pstModule) {
    g_pstThreadModule = pstModule;
}

BP_ModuleInfo *BP_GetThreadModule() {
    return g_pstThreadModule;
}

BP_ModuleInfo *BP_GetCurModule() {
    BP_ModuleInfo *pstModule = BP_GetThreadModule();
    return pstModule != nullptr ? pstModule : BP_GetModuleByID(BP_MODULE_ID_MAIN);
}

const char *BP_GetCurThreadName() {
    const BP_ModuleInfo *pstModule = BP_GetThreadModule();
    if (pstModule != nullptr) {
        return pstModule->szModuleName;
    }
    const BP_ProcConfig *pstProc = BP_GetProcNameByID(BP_GetProcInfo()->usProcID);
    return pstProc != nullptr ? pstProc->szProcName : g_szInvalidModName;
}

void BP_WakeupRecord(BP_ModuleInfo *pstModule) {
    if (pstModule->ulModuleID != BP_MODULE_ID_MAIN) {
        pstModule->semWakeup.Post();
    }
}

uint32_t BP_WakeupModule(uint32_t ulModuleID) {
    if (ulModuleID == BP_MODULE_ID_MAIN) {
        return BP_OK;
    }
    BP_ModuleInfo *pstModule = BP_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]invalid ulModuleID %x.", __func__, ulModuleID);
        return BP_ERR_FAIL;
    }
    BP_WakeupRecord(pstModule);
    return BP_OK;
}

uint32_t BP_ListModules(BP_ModuleInfo **papstModule, uint32_t ulMax) {
    uint32_t ulNum = 0;
    BP_FindModule([&](BP_ModuleInfo &stModule) {
        if (ulNum < ulMax) {
            papstModule[ulNum++] = &stModule;
        }
        return false;
    });
    for (uint32_t i = 0; i < ulNum / 2; i++) {
        BP_ModuleInfo *pstSwap = papstModule[i];
        papstModule[i] = papstModule[ulNum - 1 - i];
        papstModule[ulNum - 1 - i] = pstSwap;
    }
    return ulNum;
}
