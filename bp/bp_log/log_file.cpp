#include "bp/bp_log/log_file.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

#include "bp/bp_log/shell.h"

static constexpr uint32_t BP_LOG_LINE_ROOM = 1024; // room that must be left below the limit for one more line
static constexpr uint32_t BP_MARK_RENAME = 845;
static constexpr uint32_t BP_MARK_OPEN = 878;

void BP_LogReport(uint32_t ulMark, const char *pcFormat, ...) {
    va_list args;
    va_start(args, pcFormat);
    flockfile(stderr);
    fprintf(stderr, "[%s-%u]", "bp_log", ulMark);
    vfprintf(stderr, pcFormat, args);
    fputc('\n', stderr);
    fflush(stderr);
    funlockfile(stderr);
    va_end(args);
}

static uint32_t BP_SizeOnDisk(const char *pcName) {
    struct stat stStat;
    if (stat(pcName, &stStat) != 0) {
        return 0;
    }
    return stStat.st_size < INT32_MAX ? static_cast<uint32_t>(stStat.st_size) : INT32_MAX;
}

void BP_LogInitFile(BP_LogFile *pstFile, const char *pcStem, const char *pcSuffix) {
    snprintf(pstFile->szCurName, sizeof(pstFile->szCurName), "%s%s00%s", BP_LOG_DIR, pcStem, pcSuffix);
    snprintf(pstFile->szBakName, sizeof(pstFile->szBakName), "%s%s01%s", BP_LOG_DIR, pcStem, pcSuffix);
    pstFile->pstFp = nullptr;
    pstFile->ulSize = BP_SizeOnDisk(pstFile->szCurName);
}

static void BP_LogCloseFile(BP_LogFile *pstFile) {
    if (pstFile->pstFp != nullptr) {
        fclose(pstFile->pstFp);
        pstFile->pstFp = nullptr;
    }
}

static bool BP_LogRotate(BP_LogFile *pstFile) {
    BP_LogCloseFile(pstFile);
    if (rename(pstFile->szCurName, pstFile->szBakName) == 0) {
        pstFile->ulSize = 0;
        return true;
    }
    BP_LogReport(BP_MARK_RENAME, "Rename file %s to %s failed:%s", pstFile->szCurName, pstFile->szBakName,
                 strerror(errno));
    // Counting from what is really there lets the next line try again, or start the file anew if it is gone.
    pstFile->ulSize = BP_SizeOnDisk(pstFile->szCurName);
    return false;
}

// Looks on disk for every line: a file that somebody removed must come back with the next line.
static bool BP_LogOpen(BP_LogFile *pstFile) {
    struct stat stStat;
    if (pstFile->pstFp != nullptr && stat(pstFile->szCurName, &stStat) == 0) {
        return true;
    }
    char szCmd[64];
    snprintf(szCmd, sizeof(szCmd), "%s%s", "mkdir -p ", BP_LOG_DIR);
    BP_System(szCmd);
    BP_LogCloseFile(pstFile);
    pstFile->pstFp = fopen(pstFile->szCurName, "ae");
    if (pstFile->pstFp == nullptr) {
        BP_LogReport(BP_MARK_OPEN, "Open file %s failed:%s", pstFile->szCurName, strerror(errno));
        return false;
    }
    return true;
}

static void BP_LogCount(BP_LogFile *pstFile, int lWritten) {
    if (lWritten > 0) {
        pstFile->ulSize += static_cast<uint32_t>(lWritten);
    }
}

void BP_LogWriteFile(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcPrefix, const char *pcFormat,
                     va_list args) {
    if (pstFile->ulSize + (BP_LOG_LINE_ROOM - 1) >= ulLimit && !BP_LogRotate(pstFile)) {
        return;
    }
    if (!BP_LogOpen(pstFile)) {
        return;
    }
    BP_LogCount(pstFile, fprintf(pstFile->pstFp, "%s", pcPrefix));
    BP_LogCount(pstFile, vfprintf(pstFile->pstFp, pcFormat, args));
    BP_LogCount(pstFile, fprintf(pstFile->pstFp, "\r\n"));
    fflush(pstFile->pstFp);
}
