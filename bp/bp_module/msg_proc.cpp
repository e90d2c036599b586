#include "bp/bp_module/msg_proc.h"

#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"

void BP_InitMsgProcTable(BP_ListCtrlOf<BP_MsgProc> *pstCtrl, BP_MsgProc *pastProc) {
    pstCtrl->Init(BP_MAX_MSG_PROC_NUM);
    for (uint32_t i = 0; i < BP_MAX_MSG_PROC_NUM; i++) {
        pastProc[i].ulMsgCode = 0;
        pastProc[i].pfnProc = nullptr;
        pastProc[i].ulParam = 0;
        pastProc[i].semLock.Init(1);
        pstCtrl->stFreeList.PushFront(&pastProc[i]);
    }
}

// Needs the table's lock. With bExact, an entry for every code does not count as one for this code.
static BP_MsgProc *BP_FindMsgProc(const BP_ListCtrlOf<BP_MsgProc> *pstCtrl, uint32_t ulMsgCode, bool bExact) {
    BP_MsgProc *pstProc = pstCtrl->stUsedList.First();
    while (pstProc != nullptr && pstProc->ulMsgCode != ulMsgCode && (bExact || pstProc->ulMsgCode != 0)) {
        pstProc = pstCtrl->stUsedList.Next(pstProc);
    }
    return pstProc;
}

static uint32_t BP_AddMsgProc(BP_ListCtrlOf<BP_MsgProc> *pstCtrl, uint32_t ulMsgCode, BP_PfnMsgProc pfnProc,
                              uint32_t ulParam) {
    const BP_SemGuard stGuard(pstCtrl->semLock);
    if (BP_FindMsgProc(pstCtrl, ulMsgCode, true) != nullptr) {
        return BP_ERR_PARAM;
    }
    BP_MsgProc *pstProc = pstCtrl->stFreeList.PopFront();
    if (pstProc == nullptr) {
        return BP_ERR_FAIL;
    }
    pstProc->ulMsgCode = ulMsgCode;
    pstProc->pfnProc = pfnProc;
    pstProc->ulParam = ulParam;
    pstCtrl->stUsedList.PushBack(pstProc);
    return BP_OK;
}

uint32_t BP_RegistMsgProc(uint32_t ulModuleID, uint32_t ulTable, uint32_t ulMsgCode, BP_PfnMsgProc pfnProc,
                          uint32_t ulParam) {
    if (pfnProc == nullptr || ulTable > BP_PROC_TABLE_INNER) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    BP_ModuleInfo *pstModule = BP_GetModuleByID(ulModuleID);
    if (pstModule == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MODULE, "[%s]invalid module id %x.", __func__, ulModuleID);
        return BP_ERR_NO_MODULE;
    }
    BP_ListCtrlOf<BP_MsgProc> *pstCtrl =
        ulTable == BP_PROC_TABLE_INNER ? &pstModule->stInnerProcCtrl : &pstModule->stMsgProcCtrl;
    const uint32_t ulRet = BP_AddMsgProc(pstCtrl, ulMsgCode, pfnProc, ulParam);
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(ulRet, "[%s]module %s msg code %u: %s.", __func__, pstModule->szModuleName, ulMsgCode,
                     ulRet == BP_ERR_PARAM ? "has a handler already" : "table is full");
    }
    return ulRet;
}

BP_MsgProc *BP_GetMsgProcByMsgID(BP_ListCtrlOf<BP_MsgProc> *pstCtrl, uint32_t ulMsgCode) {
    if (pstCtrl == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return nullptr;
    }
    const BP_SemGuard stGuard(pstCtrl->semLock);
    return BP_FindMsgProc(pstCtrl, ulMsgCode, false);
}
