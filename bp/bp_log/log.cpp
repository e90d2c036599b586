#include "bp/bp_log/log.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <sys/time.h>

#include "bp/bp_log/calendar.h"
#include "bp/bp_types.h"

static constexpr uint32_t BP_MARK_MKTIME = 311;
static constexpr uint32_t BP_MARK_LOCK = 1017;
static constexpr uint32_t BP_MARK_UNLOCK = 1035;
static constexpr uint32_t BP_LOG_PREFIX_SIZE = 64;
static constexpr uint32_t BP_LOG_PROCESS_ID = 0xFFFFFFFF;

BP_LogMgr g_stBPLogMgr;

static std::atomic<uint32_t> g_ulLogLevel{BP_LOG_LEVEL_INFO};
static pthread_mutex_t g_stLogRegLock = PTHREAD_MUTEX_INITIALIZER;

// Local time minus UTC in seconds, found by reading UTC's fields as if they were local ones.
static time_t BP_LocalOffset(time_t lNow, bool *pbFailed) {
    struct tm stTm = BP_SecToTm(lNow);
    stTm.tm_wday = -1; // set by mktime unless it fails; its result of -1 is also the second before 1970
    const time_t lAsLocal = mktime(&stTm);
    *pbFailed = stTm.tm_wday == -1;
    return lNow - lAsLocal;
}

static void BP_LogClearEntry(BP_LogModule *pstEntry) {
    for (BP_LogFile *pstFile : {&pstEntry->stLogFile, &pstEntry->stDebugFile, &pstEntry->stBufFile}) {
        if (pstFile->pstFp != nullptr) {
            fclose(pstFile->pstFp);
        }
        *pstFile = BP_LogFile();
    }
    pstEntry->ulModuleID = 0;
    pstEntry->ulDebugOn.store(0, std::memory_order_relaxed);
    pstEntry->szName[0] = '\0';
}

void BP_InitLog(const char *pcProcName) {
    if (pcProcName == nullptr) {
        return;
    }
    bool bFailed = false;
    BP_LocalOffset(time(nullptr), &bFailed);
    if (bFailed) {
        BP_LogReport(BP_MARK_MKTIME, "Mktime failed:%s", strerror(errno));
        return;
    }
    g_stBPLogMgr.ulModuleNum.store(0, std::memory_order_release);
    for (BP_LogModule &stEntry : g_stBPLogMgr.astLogModule) {
        BP_LogClearEntry(&stEntry);
    }
    memset(g_stBPLogMgr.szProcName, 0, sizeof(g_stBPLogMgr.szProcName));
    snprintf(g_stBPLogMgr.szProcName, sizeof(g_stBPLogMgr.szProcName), "%s", pcProcName);
}

static bool BP_LogSetUpEntry(BP_LogModule *pstEntry, uint32_t ulModuleID, const char *pcStem,
                             const char *pcName) {
    if (pthread_mutex_init(&pstEntry->stLock, nullptr) != 0) {
        return false;
    }
    BP_LogInitFile(&pstEntry->stLogFile, pcStem, ".log");
    BP_LogInitFile(&pstEntry->stDebugFile, pcStem, ".debug");
    BP_LogInitFile(&pstEntry->stBufFile, pcStem, ".buf");
    BP_Write(pstEntry->ulDebugOn, strcmp(pcName, "MW_IWARE") == 0 ? 1U : 0U);
    snprintf(pstEntry->szName, sizeof(pstEntry->szName), "%s", pcStem);
    pstEntry->ulModuleID = ulModuleID;
    g_stBPLogMgr.ulModuleNum.fetch_add(1, std::memory_order_release);
    return true;
}

// Entries fill from the front and are never removed, so the number in use is also the first free one.
static uint32_t BP_LogRegister(const char *pcName, uint32_t ulModuleID) {
    BP_LogModule *pastEntry = g_stBPLogMgr.astLogModule;
    if (pastEntry[0].ulModuleID == 0 &&
        !BP_LogSetUpEntry(&pastEntry[0], BP_LOG_PROCESS_ID, g_stBPLogMgr.szProcName, pcName)) {
        return BP_ERR_FAIL;
    }
    const uint32_t ulFree = BP_Read(g_stBPLogMgr.ulModuleNum);
    if (ulFree >= BP_LOG_MODULE_NUM || !BP_LogSetUpEntry(&pastEntry[ulFree], ulModuleID, pcName, pcName)) {
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

uint32_t BP_RegCmdModuleID(const char *pcName, uint32_t ulArg2, uint32_t ulArg3, uint32_t ulModuleID) {
    (void)ulArg2;
    (void)ulArg3;
    if (pcName == nullptr || ulModuleID == 0) {
        return BP_ERR_PARAM;
    }
    pthread_mutex_lock(&g_stLogRegLock);
    const uint32_t ulRet = BP_LogRegister(pcName, ulModuleID);
    pthread_mutex_unlock(&g_stLogRegLock);
    return ulRet;
}

// The first registered module that the predicate accepts; entry 0 is the process's and never one of them.
template <typename Match>
static BP_LogModule *BP_FindLogEntry(Match match) {
    const uint32_t ulNum = g_stBPLogMgr.ulModuleNum.load(std::memory_order_acquire);
    for (uint32_t i = 1; i < ulNum; i++) {
        if (match(g_stBPLogMgr.astLogModule[i])) {
            return &g_stBPLogMgr.astLogModule[i];
        }
    }
    return nullptr;
}

BP_LogModule *BP_FindLogModule(uint32_t ulModuleID) {
    return ulModuleID == BP_LOG_PROCESS_ID
               ? nullptr
               : BP_FindLogEntry([=](const BP_LogModule &stEntry) { return stEntry.ulModuleID == ulModuleID; });
}

BP_LogModule *BP_FindLogModuleByName(const char *pcName) {
    if (pcName == nullptr) {
        return nullptr;
    }
    return BP_FindLogEntry([=](const BP_LogModule &stEntry) { return strcmp(stEntry.szName, pcName) == 0; });
}

uint32_t BP_GetLogInfo(uint32_t ulIndex, BP_LogInfo *pstInfo) {
    if (pstInfo == nullptr || ulIndex >= g_stBPLogMgr.ulModuleNum.load(std::memory_order_acquire)) {
        return BP_ERR_PARAM;
    }
    BP_LogModule *pstEntry = &g_stBPLogMgr.astLogModule[ulIndex];
    pthread_mutex_lock(&pstEntry->stLock);
    memcpy(pstInfo->szName, pstEntry->szName, sizeof(pstInfo->szName));
    pstInfo->ulModuleID = pstEntry->ulModuleID;
    pstInfo->ulDebugOn = BP_Read(pstEntry->ulDebugOn);
    pstInfo->ulLogSize = pstEntry->stLogFile.ulSize;
    pstInfo->ulDebugSize = pstEntry->stDebugFile.ulSize;
    pstInfo->ulBufSize = pstEntry->stBufFile.ulSize;
    pthread_mutex_unlock(&pstEntry->stLock);
    return BP_OK;
}

uint32_t BP_SetLogLevel(uint32_t ulLevel) {
    if (ulLevel < BP_LOG_LEVEL_INFO || ulLevel > BP_LOG_LEVEL_FATAL) {
        return BP_ERR_PARAM;
    }
    BP_Write(g_ulLogLevel, ulLevel);
    return BP_OK;
}

uint32_t BP_GetLogLevel() {
    return BP_Read(g_ulLogLevel);
}

const char *BP_LogLevelName(uint32_t ulLevel) {
    static constexpr char aszName[][8] = {" ", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "CFGSET", "BUF"};
    return ulLevel <= BP_LOG_LEVEL_BUF ? aszName[ulLevel] : "?";
}

// Sources of two inherited code bases carry marks in their file names that the lines do not show.
void BP_LogSourceName(const char *pcFile, char *pcName) {
    static constexpr char szMarkSkip[] = "tavo";
    static constexpr char szMarkSnmp[] = "xrv";
    const char *pcSlash = strrchr(pcFile, '/');
    const char *pcRest = pcSlash != nullptr ? pcSlash + 1 : pcFile;
    const char *pcSkip = strstr(pcRest, szMarkSkip);
    if (pcSkip != nullptr) {
        pcRest = pcSkip + strlen(szMarkSkip);
    }
    const char *pcSnmp = strstr(pcRest, szMarkSnmp);
    if (pcSnmp != nullptr) {
        pcRest = pcSnmp + strlen(szMarkSnmp);
        pcRest += strlen(pcRest) < 2 ? strlen(pcRest) : 2;
    }
    snprintf(pcName, BP_LOG_SOURCE_SIZE, "%s%s", pcSnmp != nullptr ? "snmpd_" : "", pcRest);
}

// The date of a thread's last line. The local time's offset from UTC costs as much as the rest of a line, and
// changes with a second if at all.
struct BP_LogDate {
    time_t lSecond; // both clocks, as they were read
    time_t lCoarse;
    char szDate[16];
};
static thread_local BP_LogDate g_stLogDate;

static const char *BP_LogDateOf(time_t lSecond) {
    const time_t lCoarse = time(nullptr);
    if (g_stLogDate.szDate[0] == '\0' || g_stLogDate.lSecond != lSecond || g_stLogDate.lCoarse != lCoarse) {
        bool bFailed = false;
        const BP_Date stDate = BP_SecToDate(lSecond + BP_LocalOffset(lCoarse, &bFailed));
        g_stLogDate.lSecond = lSecond;
        g_stLogDate.lCoarse = lCoarse;
        snprintf(g_stLogDate.szDate, sizeof(g_stLogDate.szDate), "%.2d-%.2d %.2d:%.2d:%.2d", stDate.lMonth,
                 stDate.lDay, stDate.lHour, stDate.lMinute, stDate.lSecond);
    }
    return g_stLogDate.szDate;
}

static void BP_LogPrefix(uint32_t ulLevel, uint32_t ulCode, const char *pcFile, uint32_t ulLine,
                         char *pcPrefix) {
    struct timeval stNow;
    gettimeofday(&stNow, nullptr);
    char szSource[BP_LOG_SOURCE_SIZE];
    BP_LogSourceName(pcFile, szSource);
    // Cutting an overlong prefix is meant; only a failed conversion leaves none.
    const int lLen = snprintf(pcPrefix, BP_LOG_PREFIX_SIZE, "%s %.3ld[%c(%u)][%s-%u]",
                              BP_LogDateOf(stNow.tv_sec), static_cast<long>(stNow.tv_usec / 1000),
                              BP_LogLevelName(ulLevel)[0], ulCode, szSource, ulLine);
    if (lLen < 0) {
        pcPrefix[0] = '\0';
    }
}

static BP_LogFile *BP_LogSlot(BP_LogModule *pstEntry, uint32_t ulLevel, uint32_t *pulLimit) {
    switch (ulLevel) {
    case BP_LOG_LEVEL_DEBUG:
        *pulLimit = BP_DEBUG_FILE_LIMIT;
        return &pstEntry->stDebugFile;
    case BP_LOG_LEVEL_BUF:
        *pulLimit = BP_BUF_FILE_LIMIT;
        return &pstEntry->stBufFile;
    default:
        *pulLimit = BP_LOG_FILE_LIMIT;
        return &pstEntry->stLogFile;
    }
}

static bool BP_LogWanted(const BP_LogModule *pstModule, uint32_t ulLevel) {
    switch (ulLevel) {
    case BP_LOG_LEVEL_DEBUG:
        return BP_Read(pstModule->ulDebugOn) != 0;
    case BP_LOG_LEVEL_INFO:
    case BP_LOG_LEVEL_WARN:
    case BP_LOG_LEVEL_ERROR:
    case BP_LOG_LEVEL_FATAL:
        return ulLevel >= BP_GetLogLevel();
    default:
        return ulLevel == BP_LOG_LEVEL_CFGSET || ulLevel == BP_LOG_LEVEL_BUF;
    }
}

void BP_WriteLog(uint32_t ulLevel, uint32_t ulCode, uint32_t ulModuleID, const char *pcFile, uint32_t ulLine,
                 const char *pcFormat, ...) {
    if (pcFormat == nullptr || pcFormat[0] == '\0' || pcFile == nullptr) {
        return;
    }
    BP_LogModule *pstModule = BP_FindLogModule(ulModuleID);
    if (pstModule == nullptr || !BP_LogWanted(pstModule, ulLevel)) {
        return;
    }
    BP_LogModule *pstTarget = ulModuleID == BP_LOG_MODULE_ID_OWN ? pstModule : &g_stBPLogMgr.astLogModule[0];
    char szPrefix[BP_LOG_PREFIX_SIZE];
    BP_LogPrefix(ulLevel, ulCode, pcFile, ulLine, szPrefix);

    int lRet = pthread_mutex_lock(&pstTarget->stLock);
    if (lRet != 0) {
        BP_LogReport(BP_MARK_LOCK, "Lock mutex failed:%s", strerror(lRet));
        return;
    }
    uint32_t ulLimit = 0;
    BP_LogFile *pstFile = BP_LogSlot(pstTarget, ulLevel, &ulLimit);
    va_list args;
    va_start(args, pcFormat);
    BP_LogWriteFile(pstFile, ulLimit, szPrefix, pcFormat, args);
    va_end(args);
    lRet = pthread_mutex_unlock(&pstTarget->stLock);
    if (lRet != 0) {
        BP_LogReport(BP_MARK_UNLOCK, "Unlock mutex failed:%s", strerror(lRet));
    }
}
