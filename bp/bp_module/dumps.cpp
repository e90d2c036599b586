#include "bp/bp_module/dumps.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "bp/bp_log/log.h"
#include "bp/bp_log/own_file.h"
#include "bp/bp_module/buf_mgr.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_msg_hdr.h"
#include "bp/bp_util/tail_file.h"

static constexpr uint32_t BP_SLAB_DUMP_SIZE = 24576;
static constexpr uint32_t BP_TIMER_DUMP_SIZE = 8192;
static constexpr uint32_t BP_KEY_LOG_LINES = 200;
static constexpr uint16_t BP_NOTICE_LEN = 4;

static const char g_szSlabLegend[] =
    "Timer_slab: msg[236-491], size:0x8;\n"
    "Msg_slab: msg[492-495], size:0x4000; msg[496-503], size:0x1000; msg[504-519], size:0x800; msg[520-551], "
    "size:0x400;\n"
    "          msg[552-615], size:0x200; msg[616-743], size:0x100; msg[744-999], size:0x80.";

static const char g_szTimerHeading[] = "TimerID   ModuleName  Interv(ms)  Type      StartTime   EndTime     "
                                       "CurExpire   NextExpire  CB(type:func)   \n";

// Text of a dump, cut at its size.
struct BP_DumpText {
    char *pcText; // ulSize bytes
    uint32_t ulSize;
    uint32_t ulLen;
};

static bool BP_OpenText(BP_DumpText *pstText, uint32_t ulSize) {
    *pstText = {static_cast<char *>(calloc(1, ulSize)), ulSize, 0};
    if (pstText->pcText == nullptr) {
        BP_LOG_ERROR(BP_ERR_NO_MEM, "calloc() fail");
    }
    return pstText->pcText != nullptr;
}

static void BP_Print(BP_DumpText *pstText, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));
static void BP_Print(BP_DumpText *pstText, const char *pcFormat, ...) {
    const uint32_t ulRoom = pstText->ulSize - pstText->ulLen;
    va_list args;
    va_start(args, pcFormat);
    const int lLen = vsnprintf(pstText->pcText + pstText->ulLen, ulRoom, pcFormat, args);
    va_end(args);
    if (lLen > 0) {
        const uint32_t ulLen = static_cast<uint32_t>(lLen);
        pstText->ulLen += ulLen < ulRoom ? ulLen : ulRoom - 1;
    }
}

uint32_t BP_WriteDumpFile(const char *pcPath, const char *pcText, uint32_t ulLen) {
    FILE *pstFp = BP_OpenOwnFile(pcPath, "w");
    if (pstFp == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "fopen slab log path fail");
        return BP_ERR_FAIL;
    }
    const bool bWritten = fwrite(pcText, ulLen, 1, pstFp) == 1 && fflush(pstFp) == 0;
    fclose(pstFp);
    if (!bWritten) {
        BP_LOG_ERROR(BP_ERR_FAIL, "write slab log fail");
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

static void BP_CloseText(BP_DumpText *pstText, const char *pcPath, const char *pcFailure) {
    if (BP_WriteDumpFile(pcPath, pstText->pcText, pstText->ulLen) != BP_OK) {
        BP_LOG_ERROR(BP_ERR_FAIL, "%s", pcFailure);
    }
    free(pstText->pcText);
}

// A word of a buffer that somebody else may be writing to at this moment: the dump shows whatever stands there.
__attribute__((no_sanitize("thread"))) static uint32_t BP_PeekWord(const BP_SlabBuf &stBuf, uint32_t ulOffset) {
    const volatile uint8_t *pucWord = stBuf.pucData + ulOffset;
    uint8_t aucWord[sizeof(uint32_t)];
    for (uint32_t i = 0; i < sizeof(uint32_t); i++) {
        aucWord[i] = pucWord[i];
    }
    uint32_t ulWord;
    memcpy(&ulWord, aucWord, sizeof(ulWord));
    return ulWord;
}

static void BP_PrintBuf(BP_DumpText *pstText, uint32_t ulBid) {
    const BP_SlabBuf &stBuf = g_stBPBufMgr.astBuf[ulBid];
    const uint16_t usLen = BP_Read(stBuf.usLen);
    const uint8_t ucFlag = BP_Read(stBuf.ucFlag);
    if (ucFlag == 0) {
        return;
    }
    if (usLen >= BP_MSG_HDR_LEN) {
        // The first words behind the header: the middleware's own type, command, inner command, sender and
        // receiver.
        const auto pfnWord = [&](uint32_t ulWord) { return BP_PeekWord(stBuf, BP_MSG_HDR_LEN + ulWord * 4); };
        BP_Print(pstText, "msg[%u]: type[%d] cmd[%d] incmd[%u] from[0x%x] to[0x%x] UsedFlag[%d]\n", ulBid,
                 static_cast<int>(pfnWord(2)), static_cast<int>(pfnWord(4)), pfnWord(5), pfnWord(1), pfnWord(0),
                 ucFlag);
    } else if (usLen == BP_NOTICE_LEN) {
        BP_Print(pstText, "msg[%u]: TimerID[%u] UsedFlag[%d]\n", ulBid, BP_PeekWord(stBuf, 0), ucFlag);
    }
}

void BP_DumpSlabLog() {
    BP_DumpText stText;
    if (!BP_OpenText(&stText, BP_SLAB_DUMP_SIZE)) {
        return;
    }
    BP_Print(&stText, "%s\n", g_szSlabLegend);
    for (uint32_t i = 0; i < BP_SLAB_MAX_NUM; i++) {
        BP_PrintBuf(&stText, i);
    }
    const time_t lNow = time(nullptr);
    struct tm stTm;
    if (localtime_r(&lNow, &stTm) != nullptr) {
        BP_Print(&stText, "%.2d-%.2d %.2d:%.2d:%.2d \n", stTm.tm_mon + 1, stTm.tm_mday, stTm.tm_hour,
                 stTm.tm_min, stTm.tm_sec);
    }
    BP_CloseText(&stText, BP_SLAB_DUMP_PATH, "Write Slab Log fail");
}

static void BP_PrintTimer(BP_DumpText *pstText, const BP_Timer &stTimer) {
    const char *pcModule = BP_GetModuleNameByID(BP_Read(stTimer.ulModuleID));
    pcModule = pcModule != nullptr ? pcModule : "UNKNOWN";
    const uint32_t ulType = BP_Read(stTimer.ulType);
    const uint32_t ulTimerID = BP_Read(stTimer.ulTimerID);
    if (ulType <= BP_TIMER_CYCLE) {
        BP_Print(pstText, "%-10u%-12s%-12u%-10s", ulTimerID, pcModule,
                 static_cast<uint32_t>(BP_Read(stTimer.lInterval)), BP_TimerTypeName(ulType));
    } else {
        BP_Print(pstText, "%-10u%-12s%02u:%02u:%02u    %-10s", ulTimerID, pcModule,
                 static_cast<uint32_t>(BP_Read(stTimer.usHour)),
                 static_cast<uint32_t>(BP_Read(stTimer.usMinute)),
                 static_cast<uint32_t>(BP_Read(stTimer.usSecond)), BP_TimerTypeName(ulType));
    }
    BP_Print(pstText, "%-12ld%-12ld%-12ld%-12ld", static_cast<long>(BP_Read(stTimer.lStartTime)),
             static_cast<long>(BP_Read(stTimer.lStopTime)),
             static_cast<long>(BP_Read(stTimer.stCurExpire.lSec)),
             static_cast<long>(BP_Read(stTimer.stNextExpire.lSec)));
    if (BP_Read(stTimer.ulCbType) == BP_TIMER_CB_EXT) {
        BP_Print(pstText, "%-3s:%-10p \n", "ext", reinterpret_cast<void *>(BP_Read(stTimer.pfnExtCb)));
    } else {
        BP_Print(pstText, "%-3s:%p \n", "com", reinterpret_cast<void *>(BP_Read(stTimer.pfnComCb)));
    }
}

// The working timer whose place in the list is the next one behind ulSeq. The list itself is the pool lock's,
// which this thread may hold already, so the places are read from the records.
static const BP_Timer *BP_NextWorkingTimer(uint32_t *pulSeq) {
    const BP_Timer *pstNext = nullptr;
    uint32_t ulNext = 0;
    for (const BP_Timer &stTimer : BP_GetProcInfo()->astTimer) {
        const uint32_t ulSeq = BP_Read(stTimer.ulWorkSeq);
        if (ulSeq > *pulSeq && (pstNext == nullptr || ulSeq < ulNext)) {
            pstNext = &stTimer;
            ulNext = ulSeq;
        }
    }
    *pulSeq = ulNext;
    return pstNext;
}

void BP_DumpTimerLog() {
    BP_DumpText stText;
    if (!BP_OpenText(&stText, BP_TIMER_DUMP_SIZE)) {
        return;
    }
    BP_Print(&stText, "%s", g_szTimerHeading);
    uint32_t ulNum = 0;
    uint32_t ulSeq = 0;
    const BP_Timer *pstTimer = BP_NextWorkingTimer(&ulSeq);
    while (pstTimer != nullptr && ulNum < BP_MAX_TIMER_NUM) {
        BP_PrintTimer(&stText, *pstTimer);
        ulNum++;
        pstTimer = BP_NextWorkingTimer(&ulSeq);
    }
    BP_Print(&stText, "total: %u \n", ulNum);
    BP_CloseText(&stText, BP_TIMER_DUMP_PATH, "Write timer Slab Log fail");
}

void BP_CollectKeyLog() {
    static constexpr const char *aapcSource[][3] = {
        {"/var/log/MW_MWARE00.log", "w", "Collect MWARE SlabLog fail"},
        {"/var/log/MW_DRV00.log", "a", "Collect DRV SlabLog fail"},
        {"/var/log/ISP_IMG00.log", "a", "Collect ISP SlabLog fail"},
    };
    for (const auto &apcSource : aapcSource) {
        if (BP_TailFile(apcSource[0], BP_KEY_DUMP_PATH, apcSource[1], BP_KEY_LOG_LINES) != BP_OK) {
            BP_LOG_ERROR(BP_ERR_FAIL, "%s", apcSource[2]);
        }
    }
}
