// Datagrams, as many and as long as the input says: two bytes of length, least first, then that many bytes.
// They go through the socket into the receive ring.
#include "bp/bp.h"
#include "bp/bp_module/receive.h"
#include "bp/bp_module/recv_ring.h"
#include "fuzz/fuzz_support.h"

static constexpr uint32_t FUZZ_PROBE_CODE = 4242;

static FuzzBus g_stBus;
static uint32_t g_ulCtrlID;
static std::atomic<uint32_t> g_ulProbes{0};

static uint32_t OnProbe(uint32_t, BP_StructMsg *, uint32_t) {
    g_ulProbes++;
    return BP_OK;
}

void FuzzStart() {
    g_stBus = FuzzStartBus();
    FuzzExpect(BP_RegistModule("MW_CTRL", 1, &g_ulCtrlID) == BP_OK &&
                   BP_RegistMsgProc(g_ulCtrlID, BP_PROC_TABLE_NORMAL, FUZZ_PROBE_CODE, OnProbe, 0) == BP_OK,
               "the receiver registers");
}

static void CheckRing() {
    const BP_RecvRing &stRing = BP_GetProcInfo()->stRecvRing;
    FuzzExpect(stRing.ulUsedLen + stRing.ulFreeLen == stRing.ulMaxSize, "used and free are the whole ring");
    FuzzExpect(stRing.ulWrPos < stRing.ulMaxSize && stRing.ulRdPos < stRing.ulMaxSize, "positions are inside");
    FuzzExpect((stRing.ulRdPos + stRing.ulUsedLen) % stRing.ulMaxSize == stRing.ulWrPos,
               "positions and length agree");
    FuzzCheckSlabs();
}

// What happens while nothing more comes: those who are short get their buffers, and the time for the rest of a
// message runs out.
static void BeIdle() {
    BP_RecvRing *pstRing = &BP_GetProcInfo()->stRecvRing;
    FuzzWait(
        [&] {
            BP_DropAllStaleAcks();
            if (pstRing->lHeldSinceMs != 0) {
                pstRing->lHeldSinceMs -= 2 * BP_RECV_HOLD_MS;
            }
            BP_ResumeReceive();
            CheckRing();
            return pstRing->ulUsedLen == 0;
        },
        "the ring becomes empty");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    while (ulSize >= 2) {
        const size_t ulWanted = pucData[0] + pucData[1] * 256U;
        const size_t ulLen = ulWanted < ulSize - 2 ? ulWanted : ulSize - 2;
        g_stBus.Send(std::string(reinterpret_cast<const char *>(pucData + 2), ulLen));
        BP_GetAndDispatchMsg();
        CheckRing();
        pucData += 2 + ulLen;
        ulSize -= 2 + ulLen;
    }
    BeIdle();
    g_ulProbes = 0;
    g_stBus.Send(FuzzMsg(g_ulCtrlID, FUZZ_PROBE_CODE, "probe"));
    FuzzExpect(BP_GetAndDispatchMsg() == BP_OK, "a datagram is read");
    CheckRing();
    FuzzWait([] { return g_ulProbes == 1; }, "a good message gets through");
    FuzzCheckSlabsFull();
    return 0;
}
