#include "bp/bp_cmd/cmd_serve.h"

#include <cstring>

#include "bp/bp_cmd/cmd_parse.h"
#include "bp/bp_cmd/cmd_runtime.h"
#include "bp/bp_cmd/cmd_table.h"
#include "bp/bp_log/log.h"
#include "bp/bp_module/module_pool.h"
#include "bp/bp_module/msg_proc.h"
#include "bp/bp_sendmsg/message.h"

// A request's text; it is not terminated.
struct BP_CmdText {
    const char *pcText;
    uint32_t ulLen;
};

// Answers one request. Any other result than BP_OK makes the answer "operate fail".
using BP_PfnServe = uint32_t (*)(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer);

static uint32_t BP_ServeTree(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    (void)stText;
    BP_PrintCmdTree(pstAnswer);
    return BP_OK;
}

// Bus modules first, of which debugging can be switched for those that have a log module of their name; then
// all log modules, such as the runtime's own. Duplicates are the console's to drop.
static uint32_t BP_ServeModules(const BP_CmdText &stText, BP_CmdAnswer *pstAnswer) {
    (void)stText;
    BP_ModuleInfo *apstModule[BP_MAX_MODULE_NUM];
    const uint32_t ulNum = BP_ListModules(apstModule, BP_MAX_MODULE_NUM);
    BP_AnswerPrint(pstAnswer, "\n");
    for (uint32_t i = 0; i < ulNum; i++) {
        BP_AnswerPrint(pstAnswer, "%s\n", apstModule[i]->szModuleName);
    }
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
    if (stText.ulLen != 1) {
        return BP_ERR_PARAM;
    }
    const uint32_t ulRet = BP_SetLogLevel(static_cast<uint32_t>(stText.pcText[0] - '0'));
    BP_AnswerPrint(pstAnswer, "operate success");
    return ulRet;
}

static void BP_SwitchAll(uint32_t ulOn) {
    BP_LogInfo stInfo;
    for (uint32_t i = 1; BP_GetLogInfo(i, &stInfo) == BP_OK; i++) {
        BP_Write(g_stBPLogMgr.astLogModule[i].ulDebugOn, ulOn);
    }
}

// Reads the next name of the list into szName and moves the text behind it. False at the end, and for a list
// that is malformed, which stText.ulLen tells.
static bool BP_NextName(BP_CmdText *pstText, char (&szName)[BP_CMD_STRING_MAX + 1]) {
    if (pstText->ulLen < 2 || pstText->pcText[0] != '\n') {
        return false;
    }
    const char *pcName = pstText->pcText + 1;
    const void *pEnd = memchr(pcName, '\n', pstText->ulLen - 1);
    const uint32_t ulName =
        pEnd != nullptr ? static_cast<uint32_t>(static_cast<const char *>(pEnd) - pcName) : pstText->ulLen - 1;
    if (ulName == 0 || ulName > BP_CMD_STRING_MAX || memchr(pcName, '\0', ulName) != nullptr) {
        return false;
    }
    memcpy(szName, pcName, ulName);
    szName[ulName] = '\0';
    pstText->pcText += ulName + 1;
    pstText->ulLen -= ulName + 1;
    return true;
}

// All names are looked at before any is switched: a request is carried out as a whole or not at all.
static uint32_t BP_SwitchDebug(const BP_CmdText &stText, uint32_t ulOn) {
    char szName[BP_CMD_STRING_MAX + 1];
    BP_LogModule *apstModule[BP_LOG_MODULE_NUM];
    uint32_t ulNum = 0;
    BP_CmdText stRest = stText;
    while (ulNum < BP_LOG_MODULE_NUM && BP_NextName(&stRest, szName)) {
        if (strcmp(szName, "all") == 0) {
            BP_SwitchAll(ulOn);
            return BP_OK;
        }
        apstModule[ulNum] = BP_FindLogModuleByName(szName);
        if (apstModule[ulNum++] == nullptr) {
            return BP_ERR_NO_MODULE;
        }
    }
    if (ulNum == 0 || stRest.ulLen != 0) {
        return BP_ERR_PARAM;
    }
    for (uint32_t i = 0; i < ulNum; i++) {
        BP_Write(apstModule[i]->ulDebugOn, ulOn);
    }
    return BP_OK;
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
    BP_CmdArgs stArgs = {};
    const BP_CmdDef *pstDef = BP_ParseCmd(stText.pcText, stText.ulLen, &stArgs);
    const uint32_t ulRet =
        pstDef != nullptr ? pstDef->pfnCmd(&stArgs, pstAnswer, pstDef->ulParam) : BP_ERR_PARAM;
    BP_TrimAnswer(pstAnswer);
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
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    if (BP_DecodeStructMsgData(pstMsg, &pucText, &ulLen) != BP_OK) {
        return BP_ERR_PARAM;
    }
    BP_CmdAnswer stAnswer;
    stAnswer.ulTotal = 0;
    const BP_CmdText stText = {reinterpret_cast<const char *>(pucText), ulLen};
    const uint32_t ulRet = g_astRequest[ulParam].pfnServe(stText, &stAnswer);
    if (ulRet != BP_OK) {
        BP_LOG_DEBUG("[%s]request %u failed with %u.", __func__, ulMsgCode, ulRet);
        return BP_SendAckMsg(pstMsg, g_szOperateFail, static_cast<uint32_t>(strlen(g_szOperateFail)));
    }
    return BP_SendAckMsg(pstMsg, stAnswer.szText, stAnswer.ulTotal);
}

uint32_t BP_StartCmd() {
    uint32_t ulRet = BP_RegistRuntimeCmds();
    for (uint32_t i = 0; ulRet == BP_OK && i < sizeof(g_astRequest) / sizeof(g_astRequest[0]); i++) {
        ulRet = BP_RegistMsgProc(BP_GetProcInfo()->ulCmdModuleID, BP_PROC_TABLE_NORMAL,
                                 g_astRequest[i].ulMsgCode, BP_HandleRequest, i);
    }
    return ulRet;
}
