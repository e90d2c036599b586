#include "bp/bp_module/proc_info.h"

static BP_ProcInfo g_stProcInfo;

BP_ProcInfo *BP_GetProcInfo() {
    return &g_stProcInfo;
}
