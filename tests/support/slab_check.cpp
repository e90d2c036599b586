#include "tests/support/slab_check.h"

#include "bp/bp_module/slab.h"

// The number of buffers on the free list and the number of those that count as free, at one moment.
static bool ListMatchesCount(BP_SlabMgr &stSlab, uint32_t *pulListed) {
    const BP_SemGuard stGuard(stSlab.semLock);
    *pulListed = 0;
    for (const BP_SlabBuf *pstBuf = stSlab.stFreeList.First();
         pstBuf != nullptr && *pulListed <= stSlab.ulTotal; pstBuf = stSlab.stFreeList.Next(pstBuf)) {
        ++*pulListed;
    }
    return *pulListed == BP_Read(stSlab.ulFreeNum);
}

static std::string Describe(uint32_t ulClass, const BP_SlabInfo &stInfo, uint32_t ulListed) {
    return "class " + std::to_string(ulClass) + ": " + std::to_string(stInfo.ulFreeNum) + " free, " +
           std::to_string(stInfo.ulUsedNum) + " used of " + std::to_string(stInfo.ulTotal) + ", " +
           std::to_string(ulListed) + " listed";
}

static std::string FaultOf(uint32_t ulClass, bool bFull) {
    BP_SlabInfo stInfo = {};
    uint32_t ulListed = 0;
    BP_GetSlabInfo(ulClass, &stInfo);
    const bool bMatches = ListMatchesCount(g_stBPBufMgr.astSlab[ulClass], &ulListed);
    const bool bHolds = bMatches && stInfo.ulFreeNum + stInfo.ulUsedNum == stInfo.ulTotal;
    return bHolds && (!bFull || stInfo.ulUsedNum == 0) ? "" : Describe(ulClass, stInfo, ulListed);
}

static std::string FirstFault(bool bFull) {
    std::string szFault;
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM && szFault.empty(); i++) {
        szFault = FaultOf(i, bFull);
    }
    return szFault;
}

std::string SlabFault() {
    return FirstFault(false);
}

std::string SlabsNotFull() {
    return FirstFault(true);
}

std::vector<BP_SlabBuf *> TakeAll(uint32_t ulSize, uint32_t ulType) {
    std::vector<BP_SlabBuf *> apstBuf;
    while (BP_SlabBuf *pstBuf = BP_SlabGetBuf(ulSize, ulType)) {
        apstBuf.push_back(pstBuf);
    }
    return apstBuf;
}

bool FreeAll(const std::vector<BP_SlabBuf *> &apstBuf) {
    bool bAll = true;
    for (BP_SlabBuf *pstBuf : apstBuf) {
        bAll = BP_SlabFreeBuf(pstBuf) == BP_OK && bAll;
    }
    return bAll;
}
