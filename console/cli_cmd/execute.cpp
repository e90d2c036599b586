#include "console/cli_cmd/execute.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/module_info.h"

uint32_t g_ulModuleID;

static constexpr char g_szExecuteFunc[] = "CLI_ExecuteCmd";

// What a request without a text of its own carries.
static constexpr char g_szNoText[] = "dbgcmd";

static uint32_t CLI_RenewRoots() {
    CLI_FreeTree(g_pCmdTempletRoot);
    CLI_FreeTree(g_pCmdNodeRoot);
    g_pCmdTempletRoot = nullptr;
    g_pCmdNodeRoot = nullptr;
    uint32_t ulRet = CLI_InitNodeRoot(&g_pCmdTempletRoot);
    if (ulRet == BP_OK) {
        ulRet = CLI_InitNodeRoot(&g_pCmdNodeRoot);
    }
    if (ulRet != BP_OK) {
        CLI_FreeTree(g_pCmdTempletRoot);
        g_pCmdTempletRoot = nullptr;
        BP_LOG_ERROR(ulRet, "[%s]fail to CLI_InitNodeRoot.", g_szExecuteFunc);
    }
    return ulRet;
}

static uint32_t CLI_UseAnswer(uint32_t ulMsgCode, const char *pcAnswer) {
    switch (ulMsgCode) {
    case BP_CMD_GET_TREE: {
        const uint32_t ulRet = CLI_RenewRoots();
        return ulRet == BP_OK ? CLI_BuildCmdTree(pcAnswer) : ulRet;
    }
    case BP_CMD_GET_MODULES:
        return CLI_BuildModuleInfo(pcAnswer);
    case BP_CMD_SET_LEVEL:
    case BP_CMD_DEBUG_ON:
    case BP_CMD_DEBUG_OFF:
        return BP_OK;
    default:
        printf("\r\n%s\n", pcAnswer);
        return BP_OK;
    }
}

uint32_t CLI_ExecuteCmd(uint32_t ulMsgCode, const char *pcCmdData) {
    if (pcCmdData == nullptr) {
        return BP_ERR_PARAM;
    }
    char *pcAnswer = nullptr;
    uint32_t ulRet = BP_SendCmdMsg(pcCmdData[0] != '\0' ? pcCmdData : g_szNoText, g_ulModuleID, ulMsgCode,
                                   CLI_ANSWER_TIMEOUT, &pcAnswer);
    if (ulRet != BP_OK) {
        BP_LOG_ERROR(BP_ERR_CMD_CALL, "[%s]fail to send cmd msg", __func__);
        return ulRet;
    }
    if (strcmp(pcAnswer, g_szOperateFail) == 0) {
        printf("\r\n[kestrel error] receive failed result.\n");
    } else {
        ulRet = CLI_UseAnswer(ulMsgCode, pcAnswer);
    }
    free(pcAnswer);
    return ulRet;
}
