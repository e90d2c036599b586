// Two bytes, least first, say where the empty ring begins; with the top bit no buffer is free until the idle
// pass. Then datagrams, as many and as long as the input says: two bytes of length, then that many bytes. They
// go through the socket into the ring.
#include <cstdlib>

#include "bp/bp.h"
#include "bp/bp_module/receive.h"
#include "bp/bp_module/recv_ring.h"
#include "fuzz/fuzz_support.h"
#include "tests/support/slab_check.h"

static constexpr uint32_t FUZZ_PROBE_CODE = 4242;
static constexpr uint32_t FUZZ_SHORTAGE = 0x8000;

static BusSocket *g_pstPeer;
static uint32_t g_ulCtrlID;
static std::vector<BP_SlabBuf *> g_apstHeld;
// Probes are numbered: the input may hold messages with their code, and those are handled at any time.
static uint32_t g_ulSent;
static std::atomic<uint32_t> g_ulArrived{0};

static uint32_t OnProbe(uint32_t, BP_StructMsg *pstMsg, uint32_t) {
    uint8_t *pucText = nullptr;
    uint32_t ulLen = 0;
    if (BP_DecodeStructMsgData(pstMsg, &pucText, &ulLen) == BP_OK) {
        const std::string szNumber(reinterpret_cast<const char *>(pucText), ulLen);
        g_ulArrived = static_cast<uint32_t>(strtoul(szNumber.c_str(), nullptr, 10));
    }
    return BP_OK;
}

void FuzzStart() {
    g_pstPeer = FuzzStartMware();
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
    uint32_t ulSent = 0;
    for (uint32_t i = 0; i < stRing.stSources.ulNum; i++) {
        ulSent += stRing.stSources.astSource[(stRing.stSources.ulFirst + i) % BP_RECV_SOURCE_NUM].ulLen;
    }
    FuzzExpect(ulSent == stRing.ulUsedLen, "every byte has a sender");
    FuzzExpect(SlabFault().empty(), "free and used buffers are all buffers, and the free ones listed");
}

static void HoldBuffers() {
    for (uint32_t i = 0; i < BP_SLAB_CLASS_TIMER; i++) {
        BP_SlabInfo stInfo = {};
        BP_GetSlabInfo(i, &stInfo);
        const std::vector<BP_SlabBuf *> apstBuf = TakeAll(stInfo.ulSize, BP_SLAB_TYPE_MSG);
        g_apstHeld.insert(g_apstHeld.end(), apstBuf.begin(), apstBuf.end());
    }
}

// What happens while nothing more comes: those who are short get their buffers, and the time for the rest of a
// message runs out.
static void BeIdle() {
    FreeAll(g_apstHeld);
    g_apstHeld.clear();
    BP_RecvRing *pstRing = &BP_GetProcInfo()->stRecvRing;
    const auto pfnIsEmpty = [&] {
        pstRing->lHeldSinceMs -= pstRing->lHeldSinceMs != 0 ? 2 * BP_RECV_HOLD_MS : 0;
        BP_ResumeReceive();
        CheckRing();
        return pstRing->ulUsedLen == 0;
    };
    FuzzExpect(WaitFor(pfnIsEmpty, 5), "the ring becomes empty");
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t ulSize) {
    const auto Number = [&] { return pucData[0] + pucData[1] * 256U; };
    if (ulSize < 2) {
        return 0;
    }
    BP_RecvRing &stRing = BP_GetProcInfo()->stRecvRing;
    stRing.ulRdPos = stRing.ulWrPos = Number() % stRing.ulMaxSize;
    if ((Number() & FUZZ_SHORTAGE) != 0) {
        HoldBuffers();
    }
    pucData += 2;
    ulSize -= 2;
    while (ulSize >= 2) {
        const size_t ulWanted = Number();
        const size_t ulLen = ulWanted < ulSize - 2 ? ulWanted : ulSize - 2;
        g_pstPeer->SendTo(PORT_MWARE, FuzzText(pucData + 2, ulLen));
        BP_GetAndDispatchMsg();
        CheckRing();
        pucData += 2 + ulLen;
        ulSize -= 2 + ulLen;
    }
    BeIdle();
    g_pstPeer->SendTo(PORT_MWARE, Bytes(MakeMsg(g_ulCtrlID, FUZZ_PROBE_CODE, std::to_string(++g_ulSent))));
    FuzzExpect(BP_GetAndDispatchMsg() == BP_OK, "a datagram is read");
    CheckRing();
    // What found no buffer is tried again by the idle pass.
    const auto pfnArrived = [] {
        BP_ResumeReceive();
        return g_ulArrived == g_ulSent;
    };
    FuzzExpect(WaitFor(pfnArrived, 5), "a good message gets through");
    FuzzCheckSlabsFull();
    return 0;
}
