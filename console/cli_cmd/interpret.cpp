#include "console/cli_cmd/interpret.h"

#include <cstdio>
#include <cstring>

#include "console/cli_cmd/execute.h"
#include "console/cli_cmd/line_editor.h"
#include "console/cli_cmd/match.h"
#include "console/cli_cmd/module_info.h"

static constexpr char g_szAll[] = "all";

static bool CLI_IsWord(const CLI_WORDS *pstWords, uint32_t ulWord, const char *pcText) {
    return ulWord < pstWords->ulNum && strcmp(pstWords->aszWord[ulWord], pcText) == 0;
}

static void CLI_ListModules() {
    printf("\r\n");
    for (uint32_t i = 0; i < CLI_MODULE_NUM && g_szModule[i][0] != '\0'; i++) {
        printf("%s\n", g_szModule[i]);
    }
}

static bool CLI_NamesAll(const CLI_WORDS *pstWords) {
    for (uint32_t i = 1; i < pstWords->ulNum; i++) {
        if (CLI_IsWord(pstWords, i, g_szAll)) {
            return true;
        }
    }
    return false;
}

// "debug" or "nodebug": each name behind a line feed; "all" stands for the whole list.
static int32_t CLI_SwitchDebug(const CLI_WORDS *pstWords, uint32_t ulMsgCode,
                               char (&szList)[CLI_FULL_CMD_SIZE]) {
    if (pstWords->ulNum == 1) {
        CLI_ListModules();
        return 0;
    }
    if (CLI_NamesAll(pstWords)) {
        snprintf(szList, sizeof(szList), "\n%s", g_szAll);
        return static_cast<int32_t>(CLI_ExecuteCmd(ulMsgCode, szList));
    }
    for (uint32_t i = 1; i < pstWords->ulNum; i++) {
        const size_t ulUsed = strlen(szList);
        if (ulUsed + strlen("\n") + strlen(pstWords->aszWord[i]) >= sizeof(szList)) {
            CLI_ShowWrongInput(i);
            return 1;
        }
        snprintf(szList + ulUsed, sizeof(szList) - ulUsed, "\n%s", pstWords->aszWord[i]);
    }
    return static_cast<int32_t>(CLI_ExecuteCmd(ulMsgCode, szList));
}

// The range of levels is the target's business.
static int32_t CLI_SetLevel(const char *pcLevel) {
    if (CLI_IsAllDigits(pcLevel) == 0) {
        CLI_ShowWrongInput(1);
        return 0;
    }
    return static_cast<int32_t>(CLI_ExecuteCmd(BP_CMD_SET_LEVEL, pcLevel));
}

int32_t CLI_MainProcess() {
    char szFullCmd[CLI_FULL_CMD_SIZE] = {};
    CLI_WORDS stWords;
    CLI_SplitLine(g_szLineBuf, &stWords);
    if (stWords.ulNum == 0) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]ulCmdArgc = 0.", __func__);
        return 1;
    }
    if (CLI_IsWord(&stWords, 0, "debug")) {
        return CLI_SwitchDebug(&stWords, BP_CMD_DEBUG_ON, szFullCmd);
    }
    if (CLI_IsWord(&stWords, 0, "nodebug")) {
        return CLI_SwitchDebug(&stWords, BP_CMD_DEBUG_OFF, szFullCmd);
    }
    if (CLI_IsWord(&stWords, 0, "loglevel") && stWords.ulNum > 1) {
        return CLI_SetLevel(stWords.aszWord[1]);
    }
    if (CLI_IsWord(&stWords, 1, "loglevel")) {
        return static_cast<int32_t>(CLI_ExecuteCmd(BP_CMD_GET_LEVEL, ""));
    }
    return CLI_MatchWords(&stWords, szFullCmd);
}
