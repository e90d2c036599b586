#include <cstdlib>
#include <unistd.h>

#include "bench/exchange.h"
#include "bp/bp.h"

static constexpr uint32_t BENCH_ASK_CODE = 4711;

static uint32_t Answer(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    return BP_SendAckMsg(pstMsg, "answer", 6);
}

static uint32_t Ignore(uint32_t, BP_StructMsg *, uint32_t) {
    return BP_OK;
}

static void Serve() {
    if (BP_MwareInit("MW_IWARE", 102) != BP_OK ||
        BP_RegistMsgProc(BP_MODULE_ID_IWARE_CMD, BP_PROC_TABLE_NORMAL, BENCH_ASK_CODE, Answer, 0) != BP_OK ||
        BP_RegistMsgProc(BP_MODULE_ID_IWARE_CMD, BP_PROC_TABLE_NORMAL, 0, Ignore, 0) != BP_OK) {
        return;
    }
    BenchReady();
    for (;;) {
        pause();
    }
}

static bool Connect() {
    static const bool bStarted =
        BP_MwareInit("MW_MWARE", 101) == BP_OK && BP_RegistModule("MW_MWARE", 1, nullptr) == BP_OK;
    return bStarted;
}

static bool Ask() {
    char *pcAnswer = nullptr;
    const bool bAnswered =
        BP_SendCmdMsg("dbgcmd", BP_MODULE_ID_IWARE_CMD, BENCH_ASK_CODE, 10, &pcAnswer) == BP_OK;
    free(pcAnswer);
    return bAnswered;
}

static void Disconnect() {}

const BenchExchange g_stRuntimeExchange = {"runtime", Serve, Connect, Ask, Disconnect};
