#include "bp/bp_util/tail_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_types.h"

static constexpr uint32_t BP_TAIL_SIZE = 24576;

static uint32_t BP_TailFail(uint32_t ulCode, const char *pcWhat) {
    BP_LOG_ERROR(ulCode, "%s", pcWhat);
    return BP_ERR_FAIL;
}

// Finds the offset at which the last ulLines newline-ended lines begin, reading backwards: no line is too long for that.
// A byte that cannot be read, because the file has shrunk, ends nothing; it is no newline.
static uint32_t BP_FindTail(FILE *pstSrc, uint32_t ulLines, long *plStart, long *plSize) {
    if (fseek(pstSrc, 0, SEEK_END) != 0) {
        return BP_TailFail(BP_ERR_FAIL, "fseek fail");
    }
    *plSize = ftell(pstSrc);
    *plStart = 0;
    uint32_t ulFound = 0;
    for (long k = 1; k <= *plSize; k++) {
        if (fseek(pstSrc, *plSize - k, SEEK_SET) != 0) {
            return BP_TailFail(BP_ERR_FAIL, "fseek() fail");
        }
        if (fgetc(pstSrc) == '\n' && ++ulFound > ulLines) {
            *plStart = *plSize - k + 1;
            break;
        }
    }
    return fseek(pstSrc, *plStart, SEEK_SET) == 0 ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fseek() fail");
}

// Fills the block of BP_TAIL_SIZE zeroed bytes: the heading and as much of the tail as fits.
static uint32_t BP_ReadTail(FILE *pstSrc, const char *pcSrcPath, uint32_t ulLines, char *pcBlock) {
    long lStart = 0;
    long lSize = 0;
    if (BP_FindTail(pstSrc, ulLines, &lStart, &lSize) != BP_OK) {
        return BP_ERR_FAIL;
    }
    snprintf(pcBlock, BP_TAIL_SIZE, "%s%s%s", "=====", pcSrcPath, "=====\n");
    const size_t ulHead = strlen(pcBlock);
    const size_t ulRoom = BP_TAIL_SIZE - ulHead - 1;
    const size_t ulTail = static_cast<size_t>(lSize - lStart);
    clearerr(pstSrc);
    const size_t ulRead = fread(pcBlock + ulHead, 1, ulTail < ulRoom ? ulTail : ulRoom, pstSrc);
    pcBlock[ulHead + ulRead] = '\0';
    return ferror(pstSrc) == 0 ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fread file fail");
}

static uint32_t BP_WriteTail(const char *pcDstPath, const char *pcMode, const char *pcBlock) {
    FILE *pstDst = fopen(pcDstPath, pcMode);
    if (pstDst == nullptr) {
        return BP_TailFail(BP_ERR_FAIL, "fopen file fail");
    }
    const bool bWritten = fwrite(pcBlock, strlen(pcBlock), 1, pstDst) == 1 && fflush(pstDst) == 0;
    fclose(pstDst);
    return bWritten ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fwrite file fail");
}

uint32_t BP_TailFile(const char *pcSrcPath, const char *pcDstPath, const char *pcMode, uint32_t ulLines) {
    FILE *pstSrc = fopen(pcSrcPath, "r");
    if (pstSrc == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fopen fail[%s]", __func__, strerror(errno));
        return BP_ERR_FAIL;
    }
    char *pcBlock = static_cast<char *>(calloc(1, BP_TAIL_SIZE));
    uint32_t ulRet =
        pcBlock != nullptr ? BP_ReadTail(pstSrc, pcSrcPath, ulLines, pcBlock) : BP_TailFail(BP_ERR_NO_MEM, "calloc() fail");
    fclose(pstSrc);
    if (ulRet == BP_OK) {
        ulRet = BP_WriteTail(pcDstPath, pcMode, pcBlock);
    }
    free(pcBlock);
    return ulRet;
}
