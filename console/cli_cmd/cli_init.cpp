#include "console/cli_cmd/cli_init.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "console/cli_cmd/cmd_tree.h"
#include "console/cli_cmd/execute.h"

const char g_szTargetMware[] = "MW_MWARE";
const char g_szTargetIware[] = "MW_IWARE";

static constexpr char g_szOwnCmdModule[] = "ks_cmd";
static constexpr uint32_t CLI_OWN_CMD_MODULE_ID = 0x90009001;

static uint32_t CLI_FailInit(uint32_t ulRet, const char *pcStep) {
    BP_LOG_ERROR(BP_ERR_CMD_CALL, "[%s]fail to %s().", "CLI_Init", pcStep);
    return ulRet;
}

static uint32_t CLI_InitRoots() {
    uint32_t ulRet = CLI_InitNodeRoot(&g_pCmdTempletRoot);
    if (ulRet != BP_OK) {
        return ulRet;
    }
    ulRet = CLI_InitNodeRoot(&g_pCmdNodeRoot);
    if (ulRet != BP_OK) {
        CLI_FreeTree(g_pCmdTempletRoot);
        g_pCmdTempletRoot = nullptr;
    }
    return ulRet;
}

// Both requests are made whatever the first one brought: the second may still get through.
static void CLI_LoadDefinitions(const char *pcTarget) {
    const bool bTree = CLI_ExecuteCmd(BP_CMD_GET_TREE, "") == BP_OK;
    if (!bTree) { // said at once: the second request may take as long as the first
        fprintf(stderr, "no commands from %s: start ks again once it answers\n", pcTarget);
    }
    if (CLI_ExecuteCmd(BP_CMD_GET_MODULES, "") != BP_OK && bTree) {
        fprintf(stderr, "no module list from %s: debug and nodebug cannot show it\n", pcTarget);
    }
}

uint32_t CLI_Init(int argc, char **argv) {
    uint32_t ulRet = BP_RegCmdModuleID(g_szOwnCmdModule, 0, 0, CLI_OWN_CMD_MODULE_ID);
    if (ulRet != BP_OK) {
        printf("BP_RegCmdModuleID() failed\n");
        exit(static_cast<int>(ulRet));
    }
    uint32_t ulOwnID = 0;
    ulRet = BP_RegistModule(g_szOwnCmdModule, 1, &ulOwnID);
    if (ulRet != BP_OK) {
        return CLI_FailInit(ulRet, "BP_RegistModule");
    }
    const bool bIware = argc > 1 && strcmp(argv[1], g_szTargetIware) == 0;
    const char *pcTarget = bIware ? g_szTargetIware : g_szTargetMware;
    ulRet = BP_GetModuleID(bIware ? "MW_IWARE_cmd" : "MW_MWARE_cmd", &g_ulModuleID);
    if (ulRet != BP_OK) {
        return CLI_FailInit(ulRet, "BP_GetModuleID");
    }
    ulRet = CLI_InitRoots();
    if (ulRet != BP_OK) {
        return CLI_FailInit(ulRet, "CLI_InitNodeRoot");
    }
    CLI_LoadDefinitions(pcTarget);
    return BP_OK;
}
