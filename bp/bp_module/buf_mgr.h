// The records of the slab pools: who takes and gives buffers goes through slab.h.
#ifndef BP_BP_MODULE_BUF_MGR_H
#define BP_BP_MODULE_BUF_MGR_H

#include <atomic>
#include <cstdint>

#include "bp/bp_module/config.h"
#include "bp/bp_types.h"

constexpr uint32_t BP_SLAB_MAX_NUM = 1000;

// Threads contend for a class: what changes with every buffer shares a cache line with the lock, so that one
// transfer between processors brings it all.
struct alignas(64) BP_SlabMgr {
    uint32_t ulSize = 0;
    uint32_t ulTotal = 0;
    std::atomic<uint32_t> ulFreeNum{0}; // ulFreeNum + ulUsedNum = ulTotal outside the lock
    std::atomic<uint32_t> ulUsedNum{0};
    BP_List<BP_SlabBuf> stFreeList;
    BP_Sem semLock; // guards the list, both counts, and what frees and time-out marks change
    // From how many free buffers on callers without exemption get one: 0 where nothing is kept back, and 1
    // where only the refusal of the last one is reported.
    uint32_t ulNeedFree = 0;
};

struct BP_BufMgr {
    BP_SlabBuf astBuf[BP_SLAB_MAX_NUM];
    BP_SlabMgr astSlab[BP_SLAB_CLASS_NUM];
    BP_List<BP_SlabBuf> stSpareList; // headers that no class was given
    uint8_t *pucData = nullptr;
};

extern BP_BufMgr g_stBPBufMgr;

#endif
