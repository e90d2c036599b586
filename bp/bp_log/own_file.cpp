#include "bp/bp_log/own_file.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

static constexpr mode_t BP_OWN_FILE_MODE = 0666; // less the umask, as fopen has it

static int BP_OpenFlags(char cMode) {
    switch (cMode) {
    case 'r':
        return O_RDONLY;
    case 'w':
        return O_WRONLY | O_CREAT; // emptied when it is known to be what it should be
    default:
        return O_WRONLY | O_CREAT | O_APPEND;
    }
}

// 0, or the error that tells why the open file is not to be used.
static int BP_CheckOwnFile(int lFd, char cMode) {
    struct stat stStat;
    if (fstat(lFd, &stStat) != 0) {
        return errno;
    }
    if (!S_ISREG(stStat.st_mode)) {
        return S_ISDIR(stStat.st_mode) ? EISDIR : EINVAL;
    }
    if (stStat.st_nlink > 1) {
        return EMLINK;
    }
    return cMode == 'w' && ftruncate(lFd, 0) != 0 ? errno : 0;
}

FILE *BP_OpenOwnFile(const char *pcPath, const char *pcMode) {
    const int lFd = open(pcPath, BP_OpenFlags(pcMode[0]) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                         BP_OWN_FILE_MODE);
    if (lFd < 0) {
        return nullptr;
    }
    int lErr = BP_CheckOwnFile(lFd, pcMode[0]);
    FILE *pstFp = lErr == 0 ? fdopen(lFd, pcMode) : nullptr;
    if (pstFp == nullptr) {
        lErr = lErr != 0 ? lErr : errno;
        close(lFd);
        errno = lErr;
    }
    return pstFp;
}
