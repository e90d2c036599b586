#include "bp/bp_cmd/cmd_runtime.h"

#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_log/thread_info.h"
#include "bp/bp_module/dumps.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/slab.h"

static void BP_PrintSlab(BP_CmdAnswer *pstAnswer, uint32_t ulClass) {
    BP_SlabInfo stInfo = {};
    BP_GetSlabInfo(ulClass, &stInfo);
    BP_AnswerPrint(pstAnswer, "%-6u%-8u%-7u%-7u%u\n", ulClass, stInfo.ulSize, stInfo.ulTotal, stInfo.ulFreeNum,
                   stInfo.ulUsedNum);
}

static uint32_t BP_DisplaySlab(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    if (pstArgs->ulNum != 0 && pstArgs->astArg[0].ulValue >= BP_SLAB_CLASS_NUM) {
        BP_AnswerPrint(pstAnswer, "no class %u: classes are 0 to %u\n", pstArgs->astArg[0].ulValue,
                       BP_SLAB_CLASS_NUM - 1);
        return BP_OK;
    }
    BP_AnswerPrint(pstAnswer, "class size    total  free   used\n");
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM; i++) {
        if (pstArgs->ulNum == 0 || pstArgs->astArg[0].ulValue == i) {
            BP_PrintSlab(pstAnswer, i);
        }
    }
    return BP_OK;
}

static uint32_t BP_ThreadOf(const char *pcName) {
    BP_ThreadInfo astInfo[BP_THREAD_INFO_NUM];
    const uint32_t ulNum = BP_CopyThreadInfo(astInfo, BP_THREAD_INFO_NUM);
    for (uint32_t i = 0; i < ulNum; i++) {
        if (strncmp(astInfo[i].szThreadName, pcName, sizeof(astInfo[i].szThreadName) - 1) == 0) {
            return astInfo[i].ulTid;
        }
    }
    return 0;
}

static void BP_PrintModule(BP_CmdAnswer *pstAnswer, BP_ModuleInfo *pstModule) {
    BP_AnswerPrint(pstAnswer, "%-17s0x%08x  %-8u%-5u%-5u%-5u%-10u%-10u%-10u%u\n", pstModule->szModuleName,
                   pstModule->ulModuleID, BP_ThreadOf(pstModule->szModuleName),
                   BP_QueueLength(&pstModule->stMsgQueue), BP_QueueLength(&pstModule->stAckQueue),
                   BP_QueueLength(&pstModule->stTimerQueue), BP_Read(pstModule->ulSendCnt),
                   BP_Read(pstModule->ulRecvCnt), BP_Read(pstModule->ulLastSendMsg),
                   BP_Read(pstModule->ulLastRecvMsg));
}

static uint32_t BP_DisplayModule(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    const char *pcWanted = pstArgs->ulNum != 0 ? pstArgs->astArg[0].szText : nullptr;
    BP_ModuleInfo *apstModule[BP_MAX_MODULE_NUM];
    const uint32_t ulNum = BP_ListModules(apstModule, BP_MAX_MODULE_NUM);
    uint32_t ulShown = 0;
    for (uint32_t i = 0; i < ulNum; i++) {
        if (pcWanted != nullptr && strcmp(pcWanted, apstModule[i]->szModuleName) != 0) {
            continue;
        }
        if (ulShown++ == 0) {
            BP_AnswerPrint(pstAnswer, "module           id          thread  msg  ack  tmr  sent      received  "
                                      "last sent last received\n");
        }
        BP_PrintModule(pstAnswer, apstModule[i]);
    }
    if (ulShown == 0) {
        BP_AnswerPrint(pstAnswer, "no module %s\n", pcWanted != nullptr ? pcWanted : "");
    }
    return BP_OK;
}

static uint32_t BP_DisplayTimer(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_DumpText stText = {pstAnswer->szText, sizeof(pstAnswer->szText), 0};
    BP_PrintTimers(&stText);
    pstAnswer->ulTotal = stText.ulLen;
    return BP_OK;
}

static uint32_t BP_DisplayDump(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_WriteDumps();
    BP_AnswerPrint(pstAnswer, "%s\n%s\n%s\n", BP_SLAB_DUMP_PATH, BP_TIMER_DUMP_PATH, BP_KEY_DUMP_PATH);
    return BP_OK;
}

static uint32_t BP_DisplayThread(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_ThreadInfo astInfo[BP_THREAD_INFO_NUM];
    const uint32_t ulNum = BP_CopyThreadInfo(astInfo, BP_THREAD_INFO_NUM);
    BP_AnswerPrint(pstAnswer, "thread  name\n");
    for (uint32_t i = 0; i < ulNum; i++) {
        BP_AnswerPrint(pstAnswer, "%-8u%s\n", astInfo[i].ulTid, astInfo[i].szThreadName);
    }
    return BP_OK;
}

void BP_PrintLogLevel(BP_CmdAnswer *pstAnswer) {
    const uint32_t ulLevel = BP_GetLogLevel();
    BP_AnswerPrint(pstAnswer, "loglevel: %u (%s)\n", ulLevel, BP_LogLevelName(ulLevel));
}

static uint32_t BP_DisplayLog(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_PrintLogLevel(pstAnswer);
    BP_LogInfo stInfo;
    if (BP_GetLogInfo(0, &stInfo) == BP_OK) {
        BP_AnswerPrint(pstAnswer, "%s%s00.log %u bytes, 00.debug %u bytes, 00.buf %u bytes\n", BP_LOG_DIR,
                       stInfo.szName, stInfo.ulLogSize, stInfo.ulDebugSize, stInfo.ulBufSize);
    }
    BP_AnswerPrint(pstAnswer, "log module       id          debug\n");
    for (uint32_t i = 1; BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        BP_AnswerPrint(pstAnswer, "%-17s0x%08x  %s\n", stInfo.szName, stInfo.ulModuleID,
                       stInfo.ulDebugOn != 0 ? "on" : "off");
    }
    return BP_OK;
}

// words, function, parameter
static const BP_CmdDef g_astRuntimeCmd[] = {
    {{{BP_CMD_TITLE, "slab", "buffer pools"},
      {BP_CMD_INTEGER | BP_CMD_OPTIONAL, "class", "size class, 0 to 7"}},
     BP_DisplaySlab,
     0},
    {{{BP_CMD_TITLE, "module", "modules with their queues and counters"},
      {BP_CMD_STRING | BP_CMD_OPTIONAL, "name", "module name"}},
     BP_DisplayModule,
     0},
    {{{BP_CMD_TITLE, "thread", "threads of the runtime"}}, BP_DisplayThread, 0},
    {{{BP_CMD_TITLE, "timer", "working timers"}}, BP_DisplayTimer, 0},
    {{{BP_CMD_TITLE, "dump", "writes the diagnostic dumps"}}, BP_DisplayDump, 0},
    {{{BP_CMD_TITLE, "log", "log files and log modules"}}, BP_DisplayLog, 0},
};

uint32_t BP_RegistRuntimeCmds() {
    uint32_t ulRet = BP_OK;
    for (const BP_CmdDef &stDef : g_astRuntimeCmd) {
        if (ulRet == BP_OK) {
            ulRet = BP_RegistCmd(&stDef);
        }
    }
    return ulRet;
}
