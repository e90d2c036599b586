#include "tests/support/slab_check.h"

#include "bp/bp_module/slab.h"

std::string SlabFault(bool bFull) {
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM; i++) {
        BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[i];
        const BP_SemGuard stGuard(stSlab.semLock);
        const uint32_t ulFree = BP_Read(stSlab.ulFreeNum);
        const uint32_t ulUsed = BP_Read(stSlab.ulUsedNum);
        uint32_t ulListed = 0;
        const BP_SlabBuf *pstBuf = stSlab.stFreeList.First();
        for (; pstBuf != nullptr && ulListed <= stSlab.ulTotal; pstBuf = stSlab.stFreeList.Next(pstBuf)) {
            ulListed++;
        }
        if (ulListed != ulFree || ulFree + ulUsed != stSlab.ulTotal || (bFull && ulUsed != 0)) {
            return "class " + std::to_string(i) + ": " + std::to_string(ulFree) + " free, " +
                   std::to_string(ulUsed) + " used of " + std::to_string(stSlab.ulTotal) + ", " +
                   std::to_string(ulListed) + " listed";
        }
    }
    return "";
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
