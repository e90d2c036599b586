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

// Takes the value up to the next ';' off the text. If it is not one or asks for help, false, and the answer
// says why or helps.
static bool BP_TakeValue(const char **ppcText, const char *pcEnd, BP_CmdArg *pstArg, BP_CmdAnswer *pstAnswer) {
    const char *pcName = pstArg->pstWord->pcName;
    const char *pcHelp = pstArg->pstWord->pcHelp;
    const void *pValueEnd = memchr(*ppcText, ';', static_cast<size_t>(pcEnd - *ppcText));
    const size_t ulLen =
        pValueEnd != nullptr ? static_cast<size_t>(static_cast<const char *>(pValueEnd) - *ppcText) : 0;
    if (ulLen == 0 || ulLen > BP_CMD_STRING_MAX) {
        BP_AnswerPrint(pstAnswer, "%s: a value of 1 to %u characters is missing\n", pcName, BP_CMD_STRING_MAX);
        return false;
    }
    memcpy(pstArg->szText, *ppcText, ulLen);
    pstArg->szText[ulLen] = '\0';
    *ppcText += ulLen + 1;
    if (pstArg->ulType == BP_CMD_STRING && pstArg->szText[ulLen - 1] == '?') {
        BP_AnswerPrint(pstAnswer, "%s: %s\n", pcName, pcHelp != nullptr ? pcHelp : "");
        return false;
    }
    if (pstArg->ulType == BP_CMD_INTEGER && !BP_ParseNumber(pstArg->szText, &pstArg->ulValue)) {
        BP_AnswerPrint(pstAnswer, "%s: %s is not a number from 0 to %u\n", pcName, pstArg->szText, UINT32_MAX);
        return false;
    }
    return true;
}

// Exactly one value for each parameter, and nothing after the last.
static bool BP_TakeValues(const char *pcText, const char *pcEnd, BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer) {
    for (uint32_t i = 0; i < pstArgs->ulNum; i++) {
        if (!BP_TakeValue(&pcText, pcEnd, &pstArgs->astArg[i], pstAnswer)) {
            return false;
        }
    }
    if (pcText != pcEnd) {
        BP_AnswerPrint(pstAnswer, "too many values: a value cannot have a ';'\n");
    }
    return pcText == pcEnd;
}

uint32_t BP_RunCmd(const char *pcText, uint32_t ulLen, BP_CmdAnswer *pstAnswer) {
    if (ulLen > BP_CMD_LINE_MAX || ulLen == 0 || pcText[0] != '<' || memchr(pcText, '\0', ulLen) != nullptr) {
        return BP_ERR_CMD_UNKNOWN;
    }
    const void *pPathEnd = memchr(pcText, '>', ulLen);
    if (pPathEnd == nullptr) {
        return BP_ERR_CMD_UNKNOWN;
    }
    const char *pcValues = static_cast<const char *>(pPathEnd) + 1;
    BP_CmdArgs stArgs = {};
    const BP_CmdDef *pstDef = BP_FindCmd(pcText + 1, static_cast<uint32_t>(pcValues - pcText) - 2, &stArgs);
    if (pstDef == nullptr) {
        return BP_ERR_CMD_UNKNOWN;
    }
    if (!BP_TakeValues(pcValues, pcText + ulLen, &stArgs, pstAnswer)) {
        return BP_OK;
    }
    return pstDef->pfnCmd(&stArgs, pstAnswer, pstDef->ulParam);
}
