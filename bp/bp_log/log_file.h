// One kind of log file of one log module: the current file, its single backup, and the rotation between them.
// docs/log-files.md lists names, limits and what is lost when.
#ifndef BP_BP_LOG_LOG_FILE_H
#define BP_BP_LOG_LOG_FILE_H

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <sys/types.h>

#define BP_LOG_DIR "/var/log/"

constexpr uint32_t BP_LOG_FILE_LIMIT = 131072;
constexpr uint32_t BP_DEBUG_FILE_LIMIT = 65536;
constexpr uint32_t BP_BUF_FILE_LIMIT = 131072;

struct BP_LogFile {
    char szCurName[128]; // the file written to
    char szBakName[128]; // what rotation renames it to, over an older backup
    FILE *pstFp;         // null until the first line, and after a rotation
    uint32_t ulSize;     // bytes in the current file after this process's last line
    dev_t ulDevice;      // of the file that is open: the name may have become another file's
    ino_t ulInode;
    bool bLockDenied; // another process has not released the file's lock
};

// Names the pair BP_LOG_DIR + pcStem + "00" / "01" + pcSuffix and takes up the size that the current file
// already has on disk. Opens nothing.
void BP_LogInitFile(BP_LogFile *pstFile, const char *pcStem, const char *pcSuffix);

// Appends prefix, formatted text and "\r\n" as one line, by one write, rotating first if fewer than 1024 bytes
// are left below ulLimit. A line that cannot be written is dropped and the reason goes to standard error. The
// file is locked meanwhile (flock); if another process does not release it within half a second, the line is
// written without the lock. The caller holds the lock of the log module that owns the file.
void BP_LogWriteFile(BP_LogFile *pstFile, uint32_t ulLimit, const char *pcPrefix, const char *pcFormat,
                     va_list args) __attribute__((format(printf, 4, 0)));

// Reports a failure of the log itself on standard error. ulMark is the failure's fixed number: it stays the
// same from build to build, so that a message seen in the field names its place.
void BP_LogReport(uint32_t ulMark, const char *pcFormat, ...) __attribute__((format(printf, 2, 3)));

#endif
