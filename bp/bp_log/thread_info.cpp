#include "bp/bp_log/thread_info.h"

#include <cstdio>
#include <cstring>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "bp/bp_log/log.h"
#include "bp/bp_log/own_file.h"
#include "bp/bp_log/shell.h"

BP_ThreadInfo g_astThreadInfo[BP_THREAD_INFO_NUM];

static bool BP_ListThread(const char *pcName) {
    char szName[sizeof(g_astThreadInfo[0].szThreadName)];
    snprintf(szName, sizeof(szName), "%s", pcName);
    for (BP_ThreadInfo &stInfo : g_astThreadInfo) {
        if (stInfo.ulTid == 0 || strcmp(stInfo.szThreadName, szName) == 0) {
            memcpy(stInfo.szThreadName, szName, sizeof(szName));
            stInfo.ulTid = static_cast<uint32_t>(syscall(SYS_gettid));
            return true;
        }
    }
    return false;
}

static void BP_WriteThreadFile(const char *pcPath) {
    char szCmd[256];
    // Quoted: the brackets of the file's name are a pattern to the shell, and would match other files.
    snprintf(szCmd, sizeof(szCmd), "rm -rf '%s'", pcPath);
    BP_System(szCmd);
    FILE *pstFp = BP_OpenOwnFile(pcPath, "w");
    if (pstFp == nullptr) {
        return;
    }
    for (const BP_ThreadInfo &stInfo : g_astThreadInfo) {
        if (stInfo.ulTid == 0 || fprintf(pstFp, "%s:%u\n", stInfo.szThreadName, stInfo.ulTid) < 0) {
            break;
        }
    }
    fclose(pstFp);
}

void BP_RecordThreadInfo(const char *pcName) {
    BP_LogModule *pstEntry = BP_FindLogModule(BP_LOG_BP_MODULE_ID);
    if (pstEntry == nullptr || pcName == nullptr) {
        return;
    }
    prctl(PR_SET_NAME, pcName);
    char szPath[64];
    snprintf(szPath, sizeof(szPath), "/tmp/ThreadInfo[%u].log", static_cast<uint32_t>(getpid()));

    pthread_mutex_lock(&pstEntry->stLock);
    if (BP_ListThread(pcName)) {
        BP_WriteThreadFile(szPath);
    }
    pthread_mutex_unlock(&pstEntry->stLock);
}

uint32_t BP_CopyThreadInfo(BP_ThreadInfo *pastInfo, uint32_t ulMax) {
    BP_LogModule *pstEntry = BP_FindLogModule(BP_LOG_BP_MODULE_ID);
    if (pstEntry == nullptr || pastInfo == nullptr) {
        return 0;
    }
    uint32_t ulNum = 0;
    pthread_mutex_lock(&pstEntry->stLock);
    while (ulNum < ulMax && ulNum < BP_THREAD_INFO_NUM && g_astThreadInfo[ulNum].ulTid != 0) {
        pastInfo[ulNum] = g_astThreadInfo[ulNum];
        ulNum++;
    }
    pthread_mutex_unlock(&pstEntry->stLock);
    return ulNum;
}
