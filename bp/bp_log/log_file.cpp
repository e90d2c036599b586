#include "bp/bp_log/log_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

#include "bp/bp_log/own_file.h"
#include "bp/bp_log/shell.h"

static constexpr uint32_t BP_LOG_LINE_ROOM = 1024; // room that must be left below the limit for one more line
static constexpr size_t BP_LOG_LINE_SIZE = 2048;   // a longer line takes memory of its own while it is written
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

static uint32_t BP_SizeOnDisk(const char *pcName) {
    struct stat stStat;
    if (lstat(pcName, &stStat) != 0 || !S_ISREG(stStat.st_mode)) {
        return 0; // nothing that could be written to, or become the backup
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

// Only a file becomes the backup: a directory that somebody put in its place would refuse every later one.
static bool BP_LogMakeBackup(const BP_LogFile *pstFile) {
    struct stat stStat;
    if (lstat(pstFile->szCurName, &stStat) == 0 && S_ISDIR(stStat.st_mode)) {
        errno = EISDIR;
        return false;
    }
    return rename(pstFile->szCurName, pstFile->szBakName) == 0;
}

static bool BP_LogRotate(BP_LogFile *pstFile) {
    BP_LogCloseFile(pstFile);
    if (BP_LogMakeBackup(pstFile)) {
        pstFile->ulSize = 0;
        return true;
    }
    BP_LogReport(BP_MARK_RENAME, "Rename file %s to %s failed:%s", pstFile->szCurName, pstFile->szBakName,
                 strerror(errno));
    // Counting from what is really there lets the next line try again, or start the file anew if it is gone.
    pstFile->ulSize = BP_SizeOnDisk(pstFile->szCurName);
    return false;
}

static bool BP_LogIsOpenFile(const BP_LogFile *pstFile, const struct stat &stStat) {
    return stStat.st_ino == pstFile->ulInode && stStat.st_dev == pstFile->ulDevice;
}

// Looks on disk for every line: a file that somebody removed or replaced must come back with the next line.
static bool BP_LogOpen(BP_LogFile *pstFile) {
    struct stat stStat;
    if (pstFile->pstFp != nullptr && lstat(pstFile->szCurName, &stStat) == 0 &&
        BP_LogIsOpenFile(pstFile, stStat)) {
        return true;
    }
    char szCmd[64];
    snprintf(szCmd, sizeof(szCmd), "%s%s", "mkdir -p ", BP_LOG_DIR);
    BP_System(szCmd);
    BP_LogCloseFile(pstFile);
    pstFile->pstFp = BP_OpenOwnFile(pstFile->szCurName, "a");
    if (pstFile->pstFp == nullptr) {
        BP_LogReport(BP_MARK_OPEN, "Open file %s failed:%s", pstFile->szCurName, strerror(errno));
        return false;
    }
    if (fstat(fileno(pstFile->pstFp), &stStat) == 0) {
        pstFile->ulDevice = stStat.st_dev;
        pstFile->ulInode = stStat.st_ino;
        pstFile->ulSize = stStat.st_size < INT32_MAX ? static_cast<uint32_t>(stStat.st_size) : INT32_MAX;
    }
    return true;
}

// Whether fewer bytes are left than a line may take. A file that another process of the same name has begun
// meanwhile counts as it is: to rename it would cost the backup that has just been made.
static bool BP_LogIsFull(BP_LogFile *pstFile, uint32_t ulLimit) {
    if (pstFile->ulSize + (BP_LOG_LINE_ROOM - 1) < ulLimit) {
        return false;
    }
    struct stat stStat;
    if (pstFile->pstFp != nullptr && lstat(pstFile->szCurName, &stStat) == 0 && S_ISREG(stStat.st_mode) &&
        !BP_LogIsOpenFile(pstFile, stStat)) {
        pstFile->ulSize = BP_SizeOnDisk(pstFile->szCurName);
    }
    return pstFile->ulSize + (BP_LOG_LINE_ROOM - 1) >= ulLimit;
}

// A line that does not fit the disk is taken back, or its beginning would be glued to the next line. An
// appending write leaves the file's position behind its own bytes; what another process of the same name wrote
// there stays.
static void BP_LogTakeBack(BP_LogFile *pstFile, off_t lWritten) {
    BP_LogReport(BP_MARK_WRITE, "Write file %s failed:%s", pstFile->szCurName, strerror(errno));
    if (lWritten == 0) {
        return;
    }
    const int lFd = fileno(pstFile->pstFp);
    const off_t lEnd = lseek(lFd, 0, SEEK_CUR);
    struct stat stStat;
    if (fstat(lFd, &stStat) != 0 || stStat.st_size != lEnd || ftruncate(lFd, lEnd - lWritten) != 0) {
        pstFile->bTorn = true; // then at least the next line begins as one
    }
}

// One write for the whole line, so that lines of processes that share a file do not mix.
static void BP_LogAppend(BP_LogFile *pstFile, const char *pcLine, size_t ulLen) {
    size_t ulDone = 0;
    while (ulDone < ulLen) {
        const ssize_t lWritten = write(fileno(pstFile->pstFp), pcLine + ulDone, ulLen - ulDone);
        if (lWritten < 0 && errno != EINTR) {
            BP_LogTakeBack(pstFile, static_cast<off_t>(ulDone));
            return;
        }
        ulDone += lWritten > 0 ? static_cast<size_t>(lWritten) : 0;
    }
    pstFile->bTorn = false;
    pstFile->ulSize += static_cast<uint32_t>(ulLen);
}

static uint32_t BP_LogFormat(const BP_LogFile *pstFile, char *pcLine, size_t ulSize, const char *pcPrefix,
                             const char *pcFormat, va_list args) __attribute__((format(printf, 5, 0)));

// Puts the line together at pcLine, which has ulSize bytes, and returns its length, which may be more than
// that.
static uint32_t BP_LogFormat(const BP_LogFile *pstFile, char *pcLine, size_t ulSize, const char *pcPrefix,
                             const char *pcFormat, va_list args) {
    static constexpr char szEnd[] = "\r\n";
    const int lPrefix = snprintf(pcLine, ulSize, "%s%s", pstFile->bTorn ? szEnd : "", pcPrefix);
    const int lText = vsnprintf(pcLine + lPrefix, ulSize - static_cast<size_t>(lPrefix), pcFormat, args);
    const uint32_t ulLen = static_cast<uint32_t>(lPrefix) + (lText > 0 ? static_cast<uint32_t>(lText) : 0);
    if (ulLen + sizeof(szEnd) <= ulSize) {
        memcpy(pcLine + ulLen, szEnd, sizeof(szEnd));
    }
    return ulLen + sizeof(szEnd) - 1;
}

void BP_LogWriteFile(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcPrefix, const char *pcFormat,
                     va_list args) {
    if (BP_LogIsFull(pstFile, ulLimit) && !BP_LogRotate(pstFile)) {
        return;
    }
    if (!BP_LogOpen(pstFile)) {
        return;
    }
    char szLine[BP_LOG_LINE_SIZE];
    va_list argsAgain;
    va_copy(argsAgain, args);
    const uint32_t ulLen = BP_LogFormat(pstFile, szLine, sizeof(szLine), pcPrefix, pcFormat, args);
    if (ulLen < sizeof(szLine)) {
        BP_LogAppend(pstFile, szLine, ulLen);
    } else if (char *pcLong = static_cast<char *>(malloc(static_cast<size_t>(ulLen) + 1))) {
        BP_LogFormat(pstFile, pcLong, static_cast<size_t>(ulLen) + 1, pcPrefix, pcFormat, argsAgain);
        BP_LogAppend(pstFile, pcLong, ulLen);
        free(pcLong);
    } else {
        BP_LogTakeBack(pstFile, 0);
    }
    va_end(argsAgain);
}
