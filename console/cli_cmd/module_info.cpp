#include "console/cli_cmd/module_info.h"

#include <cstring>

#include "bp/bp.h"
#include "console/cli_cmd/text_lines.h"

char g_szModule[CLI_MODULE_NUM][CLI_MODULE_NAME_SIZE];

static void CLI_AddModule(const char *pcName) {
    for (auto &szSlot : g_szModule) {
        if (szSlot[0] == '\0') {
            memcpy(szSlot, pcName, CLI_MODULE_NAME_SIZE);
            return;
        }
        if (strcmp(szSlot, pcName) == 0) {
            return;
        }
    }
}

uint32_t CLI_BuildModuleInfo(const char *pcText) {
    BP_LOG_DEBUG("[%s]recv : module[%s]", __func__, pcText != nullptr ? pcText : "(null)");
    if (pcText == nullptr) {
        return BP_ERR_PARAM;
    }
    const char *pcRest = CLI_SkipFirstByte(pcText);
    char szName[CLI_MODULE_NAME_SIZE] = {};
    if (CLI_NextLine(&pcRest, szName, sizeof(szName))) {
        memcpy(g_szModule[0], szName, sizeof(szName));
    }
    while (CLI_NextLine(&pcRest, szName, sizeof(szName))) {
        CLI_AddModule(szName);
    }
    return BP_OK;
}
