#include "bp/bp_cmd/cmd_parse.h"

#include <cstring>

static bool BP_ParseNumber(const char *pcText, uint32_t *pulValue) {
    uint64_t ulValue = 0;
    for (const char *pc = pcText; *pc != '\0'; pc++) {
        if (*pc < '0' || *pc > '9') {
            return false;
        }
        ulValue = ulValue * 10 + static_cast<uint64_t>(*pc - '0');
        if (ulValue > UINT32_MAX) {
            return false;
        }
    }
    *pulValue = static_cast<uint32_t>(ulValue);
    return true;
}

static bool BP_ParseValue(const char *pcText, uint32_t ulLen, BP_CmdArg *pstArg) {
    if (ulLen == 0 || ulLen > BP_CMD_STRING_MAX) {
        return false;
    }
    memcpy(pstArg->szText, pcText, ulLen);
    pstArg->szText[ulLen] = '\0';
    pstArg->ulValue = 0;
    return pstArg->ulType != BP_CMD_INTEGER || BP_ParseNumber(pstArg->szText, &pstArg->ulValue);
}

// Exactly one value for each parameter, and nothing behind the last.
static bool BP_ParseValues(const char *pcText, uint32_t ulLen, BP_CmdArgs *pstArgs) {
    for (uint32_t i = 0; i < pstArgs->ulNum; i++) {
        const void *pEnd = memchr(pcText, ';', ulLen);
        if (pEnd == nullptr) {
            return false;
        }
        const uint32_t ulValue = static_cast<uint32_t>(static_cast<const char *>(pEnd) - pcText);
        if (!BP_ParseValue(pcText, ulValue, &pstArgs->astArg[i])) {
            return false;
        }
        pcText += ulValue + 1;
        ulLen -= ulValue + 1;
    }
    return ulLen == 0;
}

const BP_CmdDef *BP_ParseCmd(const char *pcText, uint32_t ulLen, BP_CmdArgs *pstArgs) {
    if (ulLen > BP_CMD_LINE_MAX || ulLen == 0 || pcText[0] != '<' || memchr(pcText, '\0', ulLen) != nullptr) {
        return nullptr;
    }
    const void *pEnd = memchr(pcText, '>', ulLen);
    if (pEnd == nullptr) {
        return nullptr;
    }
    const uint32_t ulPath = static_cast<uint32_t>(static_cast<const char *>(pEnd) - pcText) - 1;
    const BP_CmdDef *pstDef = BP_FindCmd(pcText + 1, ulPath, pstArgs);
    if (pstDef == nullptr || !BP_ParseValues(pcText + ulPath + 2, ulLen - ulPath - 2, pstArgs)) {
        return nullptr;
    }
    return pstDef;
}
