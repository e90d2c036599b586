#include "bp/bp_cmd/cmd_serve.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "bp/bp_cmd/cmd_parse.h"
#include "bp/bp_cmd/cmd_runtime.h"
#include "bp/bp_cmd/cmd_table.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_module/proc_info.h"
#include "bp/bp_module/proc_init.h"
#include "bp/bp_sendmsg/message.h"

static constexpr uint32_t BP_LOG_NAME_SIZE = sizeof(BP_LogInfo::szName);

// A request's text; it is not terminated.
struct BP_CmdText {
    const char *pcText;
    uint32_t ulLen;
};

// Answers one request. Any other result than BP_OK makes the answer "operate fail".
using BP_PfnServe = uint32_t (*)(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer);

// Says in the log what is refused: one line of no more than a word's length, a '?' for what is not printable.
// Returns ulRet.
static uint32_t BP_RefuseRequest(uint32_t ulRet, const char *pcWhy, const BP_CmdText &stText) {
    char szShown[BP_CMD_STRING_MAX + 1];
    const uint32_t ulSkip = stText.ulLen != 0 && stText.pcText[0] == '\n' ? 1 : 0;
    const uint32_t ulLen = std::min(stText.ulLen - ulSkip, BP_CMD_STRING_MAX);
    for (uint32_t i = 0; i < ulLen; i++) {
        const char cText = stText.pcText[ulSkip + i];
        szShown[i] = isprint(static_cast<unsigned char>(cText)) != 0 ? cText : cText == '\n' ? ' ' : '?';
    }
    szShown[ulLen] = '\0';
    BP_LOG_WARN(ulRet, "[%s]%s: %s", __func__, pcWhy, szShown);
    return ulRet;
}

static uint32_t BP_ServeTree(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    (void)stText;
    BP_PrintCmdTree(pstAnswer);
    return BP_OK;
}

// What "debug" can switch: the log modules. A bus module without one of its own writes no DEBUG lines.
static uint32_t BP_ServeModules(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    (void)stText;
    BP_AnswerPrint(pstAnswer, "\n");
    BP_LogInfo stInfo;
    for (uint32_t i = 1; BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        BP_AnswerPrint(pstAnswer, "%s\n", stInfo.szName);
    }
    return BP_OK;
}

static uint32_t BP_ServeGetLevel(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    (void)stText;
    BP_PrintLogLevel(pstAnswer);
    BP_TrimAnswer(pstAnswer);
    return BP_OK;
}

static uint32_t BP_ServeSetLevel(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    if (stText.ulLen != 1 || BP_SetLogLevel(static_cast<uint32_t>(stText.pcText[0] - '0')) != BP_OK) {
        return BP_RefuseRequest(BP_ERR_PARAM, "not a level from 2 to 5", stText);
    }
    BP_AnswerPrint(pstAnswer, "operate success");
    return BP_OK;
}

// Copies the words, each after a line feed, to szName with a space between them: the name of a log module.
// False if they are malformed or too long for one.
static bool BP_JoinWords(const BP_CmdText &stText, char (&szName)[BP_LOG_NAME_SIZE]) {
    if (stText.ulLen < 2 || stText.ulLen > BP_LOG_NAME_SIZE || stText.pcText[0] != '\n' ||
        memchr(stText.pcText, '\0', stText.ulLen) != nullptr) {
        return false;
    }
    for (uint32_t i = 1; i < stText.ulLen; i++) {
        szName[i - 1] = stText.pcText[i] == '\n' ? ' ' : stText.pcText[i];
    }
    szName[stText.ulLen - 1] = '\0';
    return true;
}

// Whether a log module has this name, or is a submodule of the one that has it.
static bool BP_IsPartOf(const char *pcLogModule, const char *pcName) {
    const size_t ulLen = strlen(pcName);
    return strncmp(pcLogModule, pcName, ulLen) == 0 &&
           (pcLogModule[ulLen] == '\0' || pcLogModule[ulLen] == ' ');
}

static uint32_t BP_SwitchDebug(const BP_CmdText &stText, uint32_t ulOn) {
    char szName[BP_LOG_NAME_SIZE];
    const bool bName = BP_JoinWords(stText, szName);
    const bool bAll = bName && strcmp(szName, "all") == 0;
    bool bFound = bAll;
    BP_LogInfo stInfo;
    for (uint32_t i = 1; bName && BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        if (bAll || BP_IsPartOf(stInfo.szName, szName)) {
            BP_Write(g_stBPLogMgr.astLogModule[i].ulDebugOn, ulOn);
            bFound = true;
        }
    }
    return bFound ? BP_OK : BP_RefuseRequest(BP_ERR_NO_MODULE, "no log module", stText);
}

static uint32_t BP_ServeDebugOn(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    BP_AnswerPrint(pstAnswer, "operate success");
    return BP_SwitchDebug(stText, 1);
}

static uint32_t BP_ServeDebugOff(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    BP_AnswerPrint(pstAnswer, "operate success");
    return BP_SwitchDebug(stText, 0);
}

static uint32_t BP_ServeRun(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    const uint32_t ulRet = BP_RunCmd(stText.pcText, stText.ulLen, pstAnswer);
    BP_TrimAnswer(pstAnswer);
    if (ulRet != BP_OK) {
        BP_RefuseRequest(ulRet, ulRet == BP_ERR_CMD_UNKNOWN ? "no such command" : "command failed", stText);
    }
    return ulRet;
}

struct BP_CmdRequest {
    uint32_t ulMsgCode;
    BP_PfnServe pfnServe;
};
static constexpr BP_CmdRequest g_astRequest[] = {
    {BP_CMD_GET_TREE, BP_ServeTree},
    {BP_CMD_GET_MODULES, BP_ServeModules},
    {BP_CMD_GET_LEVEL, BP_ServeGetLevel},
    {BP_CMD_SET_LEVEL, BP_ServeSetLevel},
    {BP_CMD_DEBUG_ON, BP_ServeDebugOn},
    {BP_CMD_DEBUG_OFF, BP_ServeDebugOff},
    {BP_CMD_RUN, BP_ServeRun},
};

// Handler of every request; ulParam is the request's row.
static uint32_t BP_HandleRequest(uint32_t ulMsgCode, BP_StructMsg *pstMsg, uint32_t ulParam) {
    (void)ulMsgCode;
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    if (BP_DecodeStructMsgData(pstMsg, &pucText, &ulLen) != BP_OK) {
        return BP_ERR_PARAM;
    }
    BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    const BP_CmdText stText = {reinterpret_cast<const char *>(pucText), ulLen};
    if (g_astRequest[ulParam].pfnServe(stText, &stAnswer) != BP_OK) {
        return BP_SendAckMsg(pstMsg, g_szOperateFail, static_cast<uint32_t>(strlen(g_szOperateFail)));
    }
    return BP_SendAckMsg(pstMsg, stAnswer.szText, stAnswer.ulTotal);
}

static uint32_t BP_RegistRequests() {
    uint32_t ulRet = BP_RegistRuntimeCmds();
    for (uint32_t i = 0; ulRet == BP_OK && i < sizeof(g_astRequest) / sizeof(g_astRequest[0]); i++) {
        ulRet = BP_RegistMsgProc(BP_GetProcInfo()->ulCmdModuleID, BP_PROC_TABLE_NORMAL,
                                 g_astRequest[i].ulMsgCode, BP_HandleRequest, i);
    }
    return ulRet;
}

uint32_t BP_StartCmd() {
    if (BP_GetProcInfo()->ulCmdModuleID != 0) {
        return BP_RegistRequests();
    }
    return BP_AddStartHook(BP_RegistRequests);
}
