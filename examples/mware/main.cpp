// A middleware process, complete and small: the code to start from when a new process joins the bus.
//
// Started without an argument (or with MW_MWARE) it is the camera's middleware: MW_CTRL steers the pan-tilt
// head MW_PTZ, which reports to MW_ALM when it reaches the end of its travel. Started with MW_IWARE it is the
// intercom's, which has no modules beside those of start-up and keeps the camera's controller ticking. Attach
// to either with ks. With "prompt" behind the name it sends and answers at once instead of in idle passes.
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "examples/mware/modules.h"

struct MW_Process {
    const char *pcName;
    uint32_t ulProcID;
    uint32_t (*pfnStart)();
};

// name, process ID, start of its own modules
static const MW_Process g_astProcess[] = {
    {"MW_MWARE", 101, MW_StartCamera},
    {"MW_IWARE", 102, MW_StartIntercom},
};

static const MW_Process *MW_FindProcess(int argc, char **argv) {
    const char *pcName = argc > 1 ? argv[1] : g_astProcess[0].pcName;
    for (const MW_Process &stProcess : g_astProcess) {
        if (strcmp(stProcess.pcName, pcName) == 0) {
            return &stProcess;
        }
    }
    return nullptr;
}

uint32_t MW_StartLogModule(const char *pcName, uint32_t ulLogID) {
    const uint32_t ulRet = BP_RegCmdModuleID(pcName, 0, 0, ulLogID);
    if (ulRet != BP_OK) {
        BP_WriteLog(BP_LOG_LEVEL_ERROR, ulRet, BP_LOG_BP_MODULE_ID, __FILE__, __LINE__,
                    "[%s]no log module for %s.", __func__, pcName);
    }
    return ulRet;
}

uint32_t MW_StartModule(const MW_Module &stModule) {
    uint32_t ulRet = BP_RegistModule(stModule.pcName, 1, stModule.pulModuleID);
    if (ulRet == BP_OK) {
        ulRet = MW_StartLogModule(stModule.pcName, *stModule.pulModuleID);
    }
    if (ulRet == BP_OK) {
        ulRet = BP_RegistMsgProc(*stModule.pulModuleID, BP_PROC_TABLE_NORMAL, stModule.ulMsgCode,
                                 stModule.pfnProc, 0);
    }
    return ulRet;
}

int main(int argc, char **argv) {
    const MW_Process *pstProcess = MW_FindProcess(argc, argv);
    const bool bPrompt = argc > 2 && strcmp(argv[2], "prompt") == 0;
    if (pstProcess == nullptr || argc > 3 || (argc > 2 && !bPrompt)) {
        fprintf(stderr, "usage: mware [MW_MWARE|MW_IWARE [prompt]]\n");
        return 2;
    }
    BP_SetPromptDelivery(bPrompt ? 1 : 0);
    if (BP_StartCmd() != BP_OK || BP_MwareInit(pstProcess->pcName, pstProcess->ulProcID) != BP_OK ||
        pstProcess->pfnStart() != BP_OK) {
        fprintf(stderr, "mware: start failed, see /var/log/%s00.log\n", pstProcess->pcName);
        return 1;
    }
    printf("%s is ready\n", pstProcess->pcName);
    fflush(stdout);
    for (;;) {
        pause(); // the modules' threads do all the work
    }
}
