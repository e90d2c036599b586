#include "bp/bp_log/log_file.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include "bp/bp_log/own_file.h"
#include "bp/bp_log/shell.h"

static constexpr uint32_t BP_LOG_LINE_ROOM = 1024; // room that must be left below the limit for one more line
static constexpr size_t BP_LOG_LINE_SIZE = 2048;   // a longer line takes memory of its own while it is written
static constexpr uint32_t BP_LOG_LOCK_MS = 500;    // the longest wait for another process's line
static constexpr uint32_t BP_LOG_OPEN_TRIES = 5;
static constexpr uint32_t BP_MARK_RENAME = 845;
static constexpr uint32_t BP_MARK_OPEN = 878;
static constexpr uint32_t BP_MARK_WRITE = 903;

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

static uint32_t BP_LogSize(const struct stat &stStat) {
    return static_cast<uint32_t>(std::min<off_t>(stStat.st_size, INT32_MAX));
}

void BP_LogInitFile(BP_LogFile *pstFile, const char *pcStem, const char *pcSuffix) {
    snprintf(pstFile->szCurName, sizeof(pstFile->szCurName), "%s%s00%s", BP_LOG_DIR, pcStem, pcSuffix);
    snprintf(pstFile->szBakName, sizeof(pstFile->szBakName), "%s%s01%s", BP_LOG_DIR, pcStem, pcSuffix);
    pstFile->pstFp = nullptr;
    struct stat stStat;
    pstFile->ulSize = lstat(pstFile->szCurName, &stStat) == 0 ? BP_LogSize(stStat) : 0;
}

// Keeps out other processes that write the same file. A stopped process keeps the lock, and any reader of the
// file can take it, so the wait is bounded. After one that failed, each line tries once until it gets the lock.
static void BP_LogLock(BP_LogFile *pstFile) {
    for (uint32_t i = 0; flock(fileno(pstFile->pstFp), LOCK_EX | LOCK_NB) != 0; i++) {
        if (pstFile->bLockDenied || i == BP_LOG_LOCK_MS) {
            pstFile->bLockDenied = true;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    pstFile->bLockDenied = false;
}

static void BP_LogCloseFile(BP_LogFile *pstFile) {
    fclose(pstFile->pstFp);
    pstFile->pstFp = nullptr;
    pstFile->ulSize = 0;
}

static bool BP_LogIsFull(const BP_LogFile *pstFile, uint32_t ulLimit) {
    return pstFile->ulSize + (BP_LOG_LINE_ROOM - 1) >= ulLimit;
}

// Closing releases the lock, so the rename comes first. If no file is open, there is none to rename.
static bool BP_LogRotate(BP_LogFile *pstFile) {
    if (pstFile->pstFp != nullptr && rename(pstFile->szCurName, pstFile->szBakName) == 0) {
        BP_LogCloseFile(pstFile);
        return true;
    }
    BP_LogReport(BP_MARK_RENAME, "Rename file %s to %s failed:%s", pstFile->szCurName, pstFile->szBakName,
                 strerror(errno));
    return false;
}

static bool BP_LogOpen(BP_LogFile *pstFile) {
    char szCmd[64];
    snprintf(szCmd, sizeof(szCmd), "%s%s", "mkdir -p ", BP_LOG_DIR);
    BP_System(szCmd);
    pstFile->pstFp = BP_OpenOwnFile(pstFile->szCurName, "a");
    struct stat stStat;
    if (pstFile->pstFp == nullptr || fstat(fileno(pstFile->pstFp), &stStat) != 0) {
        BP_LogReport(BP_MARK_OPEN, "Open file %s failed:%s", pstFile->szCurName, strerror(errno));
        return false;
    }
    pstFile->ulDevice = stStat.st_dev;
    pstFile->ulInode = stStat.st_ino;
    return true;
}

// Locks the open file and looks for it on disk. It is closed if another process has rotated it, or if it was
// removed or replaced.
static bool BP_LogIsCurrent(BP_LogFile *pstFile) {
    if (pstFile->pstFp == nullptr) {
        return false;
    }
    BP_LogLock(pstFile);
    struct stat stStat;
    if (lstat(pstFile->szCurName, &stStat) == 0 && stStat.st_ino == pstFile->ulInode &&
        stStat.st_dev == pstFile->ulDevice) {
        pstFile->ulSize = BP_LogSize(stStat);
        return true;
    }
    BP_LogCloseFile(pstFile);
    return false;
}

// Leaves the current file open and locked, with room for a line, or returns false. If the file is moved away
// each time before it can be locked, the last one opened is taken.
static bool BP_LogTakeFile(BP_LogFile *pstFile, uint32_t ulLimit) {
    struct stat stStat;
    if (pstFile->pstFp == nullptr && BP_LogIsFull(pstFile, ulLimit) &&
        lstat(pstFile->szCurName, &stStat) != 0) {
        pstFile->ulSize = 0;
        return BP_LogRotate(pstFile);
    }
    for (uint32_t i = 0; i < BP_LOG_OPEN_TRIES; i++) {
        const bool bCurrent = BP_LogIsCurrent(pstFile);
        if (bCurrent && !BP_LogIsFull(pstFile, ulLimit)) {
            return true;
        }
        if ((bCurrent && !BP_LogRotate(pstFile)) || !BP_LogOpen(pstFile)) {
            return false;
        }
    }
    BP_LogLock(pstFile);
    if (fstat(fileno(pstFile->pstFp), &stStat) == 0) {
        pstFile->ulSize = BP_LogSize(stStat);
    }
    return true;
}

static void BP_LogReportWrite(const BP_LogFile *pstFile, int lErr) {
    BP_LogReport(BP_MARK_WRITE, "Write file %s failed:%s", pstFile->szCurName, strerror(lErr));
}

// One write for the whole line, so that lines of several processes stay whole even without the lock. If the
// disk is full, the part written is taken back, unless another line follows it already.
static void BP_LogAppend(BP_LogFile *pstFile, const char *pcLine, size_t ulLen) {
    const int lFd = fileno(pstFile->pstFp);
    const uint32_t ulBefore = pstFile->ulSize;
    for (size_t ulDone = 0; ulDone < ulLen; ulDone = pstFile->ulSize - ulBefore) {
        const ssize_t lWritten = write(lFd, pcLine + ulDone, ulLen - ulDone);
        if (lWritten < 0 && errno != EINTR) {
            const int lErr = errno;
            struct stat stStat;
            if (fstat(lFd, &stStat) == 0 && stStat.st_size == pstFile->ulSize &&
                ftruncate(lFd, ulBefore) == 0) {
                pstFile->ulSize = ulBefore;
            }
            BP_LogReportWrite(pstFile, lErr);
            return;
        }
        pstFile->ulSize += lWritten > 0 ? static_cast<uint32_t>(lWritten) : 0;
    }
}

// Puts the line together at pcLine, which has ulSize bytes, and returns its length, which may be more than
// that.
__attribute__((format(printf, 4, 0))) static uint32_t
BP_LogFormat(char *pcLine, size_t ulSize, const char *pcPrefix, const char *pcFormat, va_list args) {
    static constexpr char szEnd[] = "\r\n";
    const int lPrefix = snprintf(pcLine, ulSize, "%s", pcPrefix);
    const int lText = vsnprintf(pcLine + lPrefix, ulSize - static_cast<size_t>(lPrefix), pcFormat, args);
    const uint32_t ulLen = static_cast<uint32_t>(lPrefix) + (lText > 0 ? static_cast<uint32_t>(lText) : 0);
    if (ulLen + sizeof(szEnd) <= ulSize) {
        memcpy(pcLine + ulLen, szEnd, sizeof(szEnd));
    }
    return ulLen + sizeof(szEnd) - 1;
}

void BP_LogWriteFile(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcPrefix, const char *pcFormat,
                     va_list args) {
    if (BP_LogTakeFile(pstFile, ulLimit)) {
        char szLine[BP_LOG_LINE_SIZE];
        va_list argsAgain;
        va_copy(argsAgain, args);
        const uint32_t ulLen = BP_LogFormat(szLine, sizeof(szLine), pcPrefix, pcFormat, args);
        if (ulLen < sizeof(szLine)) {
            BP_LogAppend(pstFile, szLine, ulLen);
        } else if (char *pcLong = static_cast<char *>(malloc(static_cast<size_t>(ulLen) + 1))) {
            BP_LogFormat(pcLong, static_cast<size_t>(ulLen) + 1, pcPrefix, pcFormat, argsAgain);
            BP_LogAppend(pstFile, pcLong, ulLen);
            free(pcLong);
        } else {
            BP_LogReportWrite(pstFile, errno);
        }
        va_end(argsAgain);
    }
    if (pstFile->pstFp != nullptr) {
        flock(fileno(pstFile->pstFp), LOCK_UN);
    }
}
