#include "bench/bench_process.h"

#include <algorithm>
#include <atomic>
#include <sched.h>

static constexpr uint32_t BENCH_RUN_CODE = 1;

// The one piece of work that is under way, and what came of it in each of the threads that do it.
static const std::function<double()> *g_ppfnWork;
static double g_adResult[2];
static BP_Sem g_semDone(0);
static bool g_bContended;
static std::atomic<uint32_t> g_ulAwaited; // threads that have to be there before the work begins

// A thread has a processor of its own where it contends with another: on one they would take turns.
static void ChooseProcessors(cpu_set_t *pstOld, uint32_t ulPlace) {
    sched_getaffinity(0, sizeof(*pstOld), pstOld);
    cpu_set_t stSet;
    CPU_ZERO(&stSet);
    CPU_SET(ulPlace, &stSet);
    sched_setaffinity(0, sizeof(stSet), &stSet);
}

static uint32_t Run(uint32_t, BP_StructMsg *, uint32_t ulPlace) {
    cpu_set_t stOld;
    const bool bContended = g_bContended;
    if (bContended) {
        ChooseProcessors(&stOld, ulPlace);
    }
    g_ulAwaited--;
    while (g_ulAwaited != 0) {
    }
    g_adResult[ulPlace] = (*g_ppfnWork)();
    if (bContended) {
        sched_setaffinity(0, sizeof(stOld), &stOld);
    }
    g_semDone.Post();
    return BP_OK;
}

bool BenchStartProcess() {
    return BP_MwareInit("MW_MWARE", 101) == BP_OK && BP_RegistModule("MW_CTRL", 1, nullptr) == BP_OK &&
           BP_RegistModule("MW_PTZ", 1, nullptr) == BP_OK && BP_RegistModule("MW_MWARE", 1, nullptr) == BP_OK &&
           BP_RegistMsgProc(BENCH_CTRL, BP_PROC_TABLE_NORMAL, BENCH_RUN_CODE, Run, 0) == BP_OK &&
           BP_RegistMsgProc(BENCH_PTZ, BP_PROC_TABLE_NORMAL, BENCH_RUN_CODE, Run, 1) == BP_OK &&
           BP_RegistMsgProc(BP_MODULE_ID_MWARE_CMD, BP_PROC_TABLE_NORMAL, BENCH_RUN_CODE, Run, 0) == BP_OK;
}

double BenchInModule(uint32_t ulModuleID, const std::function<double()> &pfnWork) {
    g_ppfnWork = &pfnWork;
    g_bContended = false;
    g_ulAwaited = 1;
    BP_PostMsg(ulModuleID, BENCH_RUN_CODE, nullptr, 0);
    g_semDone.Wait();
    return g_adResult[ulModuleID == BENCH_PTZ ? 1 : 0];
}

double BenchInBothModules(const std::function<double()> &pfnWork) {
    g_ppfnWork = &pfnWork;
    g_bContended = true;
    g_ulAwaited = 2;
    BP_PostMsg(BENCH_CTRL, BENCH_RUN_CODE, nullptr, 0);
    BP_PostMsg(BENCH_PTZ, BENCH_RUN_CODE, nullptr, 0);
    g_semDone.Wait();
    g_semDone.Wait();
    return std::max(g_adResult[0], g_adResult[1]);
}
