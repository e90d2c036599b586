#include "bp/bp_cmd/cmd_runtime.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

#include "bp/bp_log/log.h"
#include "bp/bp_log/thread_info.h"
#include "bp/bp_module/config.h"
#include "bp/bp_module/dumps.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_queue.h"
#include "bp/bp_module/pace.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/slab.h"

static constexpr size_t BP_TIME_SIZE = sizeof("2026-11-24 03:00:00");

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
    BP_AnswerPrint(pstAnswer, "%-14s 0x%08x %-7u %-3u %-3u %-3u %-10u %-5u %-10u %u\n", pstModule->szModuleName,
                   pstModule->ulModuleID, BP_ThreadOf(pstModule->szModuleName),
                   BP_QueueLength(&pstModule->stMsgQueue), BP_QueueLength(&pstModule->stAckQueue),
                   BP_QueueLength(&pstModule->stTimerQueue), BP_Read(pstModule->ulSendCnt),
                   BP_Read(pstModule->ulLastSendMsg), BP_Read(pstModule->ulRecvCnt),
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
            BP_AnswerPrint(pstAnswer, "module         id         thread  msg ack tmr "
                                      "sent       last  received   last\n");
        }
        BP_PrintModule(pstAnswer, apstModule[i]);
    }
    if (ulShown == 0) {
        BP_AnswerPrint(pstAnswer, "no module %s\n", pcWanted != nullptr ? pcWanted : "");
    }
    return BP_OK;
}

// Local date and time of lSec seconds since 1970, "-" for 0.
static void BP_FormatTime(time_t lSec, char (&szTime)[BP_TIME_SIZE]) {
    struct tm stTm;
    if (lSec == 0 || localtime_r(&lSec, &stTm) == nullptr ||
        strftime(szTime, sizeof(szTime), "%Y-%m-%d %H:%M:%S", &stTm) == 0) {
        snprintf(szTime, sizeof(szTime), "-");
    }
}

// When a timer fires: every so many milliseconds, or the day and the time of day.
static void BP_FormatRule(const BP_Timer &stTimer, char (&szRule)[BP_TIME_SIZE]) {
    static constexpr const char *apcWeekday[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    const uint32_t ulType = BP_Read(stTimer.ulType);
    if (ulType <= BP_TIMER_CYCLE) {
        snprintf(szRule, sizeof(szRule), "%d ms", BP_Read(stTimer.lInterval));
        return;
    }
    int lLen = 0;
    if (ulType == BP_TIMER_WEEK) {
        lLen = snprintf(szRule, sizeof(szRule), "%s ", apcWeekday[stTimer.usDay]);
    } else if (ulType == BP_TIMER_MONTH) {
        lLen = snprintf(szRule, sizeof(szRule), "day %u ", stTimer.usDay);
    }
    snprintf(szRule + lLen, sizeof(szRule) - static_cast<size_t>(lLen), "%02u:%02u:%02u",
             BP_Read(stTimer.usHour), BP_Read(stTimer.usMinute), BP_Read(stTimer.usSecond));
}

static uint32_t BP_DisplayTimer(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    char szRule[BP_TIME_SIZE];
    char szNext[BP_TIME_SIZE];
    BP_ListCtrlOf<BP_Timer> &stCtrl = BP_GetProcInfo()->stTimerCtrl;
    const BP_SemGuard stGuard(stCtrl.semLock);
    BP_AnswerPrint(pstAnswer, "timer      module         type  rule            next expiry\n");
    for (const BP_Timer *pstTimer = stCtrl.stUsedList.First(); pstTimer != nullptr;
         pstTimer = stCtrl.stUsedList.Next(pstTimer)) {
        const char *pcModule = BP_GetModuleNameByID(BP_Read(pstTimer->ulModuleID));
        BP_FormatRule(*pstTimer, szRule);
        BP_FormatTime(BP_Read(pstTimer->stCurExpire.lSec), szNext);
        BP_AnswerPrint(pstAnswer, "%-10u %-14s %-5s %-15s %s\n", BP_Read(pstTimer->ulTimerID),
                       pcModule != nullptr ? pcModule : "?", BP_TimerTypeName(BP_Read(pstTimer->ulType)),
                       szRule, szNext);
    }
    return BP_OK;
}

void BP_PrintLogLevel(BP_CmdAnswer *pstAnswer) {
    const uint32_t ulLevel = BP_GetLogLevel();
    BP_AnswerPrint(pstAnswer, "loglevel: %u (%s)\n", ulLevel, BP_LogLevelName(ulLevel));
}

static uint32_t BP_DisplayProcess(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    const BP_ProcInfo *pstProc = BP_GetProcInfo();
    const BP_ProcConfig *pstRow = BP_GetProcNameByID(pstProc->usProcID);
    char szStart[BP_TIME_SIZE];
    BP_FormatTime(pstProc->lStartTime, szStart);
    BP_AnswerPrint(pstAnswer, "process: %s\npid: %d\nID: %u\n", pstProc->szProcName, getpid(),
                   pstProc->usProcID);
    BP_AnswerPrint(pstAnswer, "port: %u\nstarted: %s\npace: %s\n", pstRow != nullptr ? pstRow->usPort : 0U,
                   szStart, BP_GetPromptDelivery() != 0 ? "prompt" : "default");
    BP_PrintLogLevel(pstAnswer);
    return BP_OK;
}

static uint32_t BP_DisplayDump(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)ulParam;
    if (strcmp(pstArgs->astArg[0].szText, "yes") != 0) {
        BP_AnswerPrint(pstAnswer, "nothing written: it takes a yes\n");
        return BP_OK;
    }
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

static uint32_t BP_DisplayLog(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_PrintLogLevel(pstAnswer);
    BP_LogInfo stInfo;
    if (BP_GetLogInfo(0, &stInfo) == BP_OK) {
        const struct {
            const char *pcKind;
            uint32_t ulSize;
        } astFile[] = {{"log", stInfo.ulLogSize}, {"debug", stInfo.ulDebugSize}, {"buf", stInfo.ulBufSize}};
        for (const auto &stFile : astFile) {
            BP_AnswerPrint(pstAnswer, "%s%s00.%-5s %6u bytes\n", BP_LOG_DIR, stInfo.szName, stFile.pcKind,
                           stFile.ulSize);
        }
    }
    BP_AnswerPrint(pstAnswer, "log module                      id         debug\n");
    for (uint32_t i = 1; BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        BP_AnswerPrint(pstAnswer, "%-31s 0x%08x %s\n", stInfo.szName, stInfo.ulModuleID,
                       stInfo.ulDebugOn != 0 ? "on" : "off");
    }
    return BP_OK;
}

// words, function, parameter. Their answers keep within the 80 columns of a serial terminal.
static const BP_CmdDef g_astRuntimeCmd[] = {
    {{{BP_CMD_TITLE, "process", "which process this is, and since when"}}, BP_DisplayProcess, 0},
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
    {{{BP_CMD_TITLE | BP_CMD_EFFECT, "dump", "writes the diagnostic dumps"},
      {BP_CMD_STRING, "yes", "yes, write the files"}},
     BP_DisplayDump,
     0},
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
