#include "examples/mware/modules.h"

static std::atomic<uint32_t> g_ulTickNum;

// A cycle timer of the main module: its callback runs in the main thread. The camera's controller lives in the
// other process; whether that runs is not our concern.
static uint32_t MW_OnTick(uint32_t ulTimerID, uint32_t ulParam) {
    (void)ulTimerID;
    (void)ulParam;
    g_ulTickNum.fetch_add(1, std::memory_order_relaxed);
    uint32_t ulCtrlID = 0;
    const uint32_t ulRet = BP_GetModuleID("MW_CTRL", &ulCtrlID);
    return ulRet == BP_OK ? BP_PostMsg(ulCtrlID, MW_MSG_TICK, nullptr, 0) : ulRet;
}

static uint32_t MW_DisplayTicks(const BP_CmdArgs *pstArgs, BP_CmdAnswer *pstAnswer, uint32_t ulParam) {
    (void)pstArgs;
    (void)ulParam;
    BP_AnswerPrint(pstAnswer, "%u ticks\n", BP_Read(g_ulTickNum));
    return BP_OK;
}

static const BP_CmdDef g_stTicksCmd = {{{BP_CMD_TITLE, "ticks", "ticks seen"}}, MW_DisplayTicks, 0};

// Start-up has registered both modules of this process already.
uint32_t MW_StartIntercom() {
    const uint32_t ulRet = BP_RegistCmd(&g_stTicksCmd);
    uint32_t ulTimerID = 0;
    return ulRet == BP_OK ? BP_StartCycleTimer(BP_MODULE_ID_MAIN, MW_TICK_MS, MW_OnTick, 0, &ulTimerID) : ulRet;
}
