#include "bp/bp_util/tail_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bp/bp_log/log.h"
#include "bp/bp_log/own_file.h"
#include "bp/bp_types.h"

static constexpr uint32_t BP_TAIL_SIZE = 24576;
static constexpr long BP_TAIL_BLOCK = 4096;

static uint32_t BP_TailFail(uint32_t ulCode, const char *pcWhat) {
    BP_LOG_ERROR(ulCode, "%s", pcWhat);
    return BP_ERR_FAIL;
}

// Looks through the lLen bytes at lFrom, last first, for the line feed that makes more than ulLines. Its
// offset, -1 when it is not there, -2 when the file cannot be read. Where the file has shrunk there is nothing
// to find.
static long BP_FindInBlock(FILE *pstSrc, long lFrom, long lLen, uint32_t ulLines, uint32_t *pulFound) {
    char acBlock[BP_TAIL_BLOCK];
    if (fseek(pstSrc, lFrom, SEEK_SET) != 0) {
        BP_TailFail(BP_ERR_FAIL, "fseek() fail");
        return -2;
    }
    const long lRead = static_cast<long>(fread(acBlock, 1, static_cast<size_t>(lLen), pstSrc));
    if (ferror(pstSrc) != 0) {
        BP_TailFail(BP_ERR_FAIL, "fread file fail");
        return -2;
    }
    for (long i = lRead - 1; i >= 0; i--) {
        if (acBlock[i] == '\n' && ++*pulFound > ulLines) {
            return lFrom + i;
        }
    }
    return -1;
}

static uint32_t BP_SeekEnd(FILE *pstSrc, long *plSize) {
    if (fseek(pstSrc, 0, SEEK_END) != 0 || (*plSize = ftell(pstSrc)) < 0) {
        return BP_TailFail(BP_ERR_FAIL, "fseek fail");
    }
    return BP_OK;
}

// Moves to where the last ulLines newline-ended lines begin, reading backwards: no line is too long for that.
static uint32_t BP_SeekTail(FILE *pstSrc, uint32_t ulLines, long *plTail) {
    long lSize = 0;
    if (BP_SeekEnd(pstSrc, &lSize) != BP_OK) {
        return BP_ERR_FAIL;
    }
    uint32_t ulFound = 0;
    long lFound = -1;
    for (long lEnd = lSize; lEnd > 0 && lFound == -1; lEnd -= BP_TAIL_BLOCK) {
        const long lFrom = lEnd > BP_TAIL_BLOCK ? lEnd - BP_TAIL_BLOCK : 0;
        lFound = BP_FindInBlock(pstSrc, lFrom, lEnd - lFrom, ulLines, &ulFound);
    }
    if (lFound == -2) {
        return BP_ERR_FAIL;
    }
    *plTail = lSize - (lFound + 1);
    clearerr(pstSrc); // a file that has shrunk ended early
    return fseek(pstSrc, lFound + 1, SEEK_SET) == 0 ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fseek() fail");
}

// Appends as much of the lTail bytes that come next as fits the block of BP_TAIL_SIZE zeroed bytes.
static uint32_t BP_ReadTail(FILE *pstSrc, long lTail, char *pcBlock) {
    const size_t ulHead = strlen(pcBlock);
    const size_t ulRoom = BP_TAIL_SIZE - ulHead - 1;
    const size_t ulTail = static_cast<size_t>(lTail);
    const size_t ulRead = fread(pcBlock + ulHead, 1, ulTail < ulRoom ? ulTail : ulRoom, pstSrc);
    pcBlock[ulHead + ulRead] = '\0';
    return ferror(pstSrc) == 0 ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fread file fail");
}

static uint32_t BP_WriteTail(const char *pcDstPath, const char *pcMode, const char *pcBlock) {
    FILE *pstDst = BP_OpenOwnFile(pcDstPath, pcMode);
    if (pstDst == nullptr) {
        return BP_TailFail(BP_ERR_FAIL, "fopen file fail");
    }
    const bool bWritten = fwrite(pcBlock, strlen(pcBlock), 1, pstDst) == 1 && fflush(pstDst) == 0;
    fclose(pstDst);
    return bWritten ? BP_OK : BP_TailFail(BP_ERR_FAIL, "fwrite file fail");
}

// The block with the heading and the tail, for the caller to free; null, with its line, when there is none.
static char *BP_MakeBlock(FILE *pstSrc, const char *pcSrcPath, uint32_t ulLines) {
    long lTail = 0;
    if (BP_SeekTail(pstSrc, ulLines, &lTail) != BP_OK) {
        return nullptr;
    }
    char *pcBlock = static_cast<char *>(calloc(1, BP_TAIL_SIZE));
    if (pcBlock == nullptr) {
        BP_TailFail(BP_ERR_NO_MEM, "calloc() fail");
        return nullptr;
    }
    snprintf(pcBlock, BP_TAIL_SIZE, "%s%s%s", "=====", pcSrcPath, "=====\n");
    if (BP_ReadTail(pstSrc, lTail, pcBlock) != BP_OK) {
        free(pcBlock);
        return nullptr;
    }
    return pcBlock;
}

uint32_t BP_TailFile(const char *pcSrcPath, const char *pcDstPath, const char *pcMode, uint32_t ulLines) {
    FILE *pstSrc = BP_OpenOwnFile(pcSrcPath, "r");
    if (pstSrc == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fopen fail[%s]", __func__, strerror(errno));
        return BP_ERR_FAIL;
    }
    char *pcBlock = BP_MakeBlock(pstSrc, pcSrcPath, ulLines);
    fclose(pstSrc);
    const uint32_t ulRet = pcBlock != nullptr ? BP_WriteTail(pcDstPath, pcMode, pcBlock) : BP_ERR_FAIL;
    free(pcBlock);
    return ulRet;
}
