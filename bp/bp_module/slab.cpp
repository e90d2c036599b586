#include "bp/bp_module/slab.h"

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "bp/bp_log/log.h"
#include "bp/bp_module/dumps.h"
#include "bp/bp_module/module_pool.h"

static constexpr uint32_t BP_TIMER_PLENTY = 10; // free timer buffers above which a later shortage reports again

BP_BufMgr g_stBPBufMgr;
BP_BufLogMgr g_stBPbuffLogMgr;

static void BP_InitHeaders() {
    g_stBPBufMgr.stSpareList.Init();
    for (uint32_t i = 0; i < BP_SLAB_MAX_NUM; i++) {
        BP_SlabBuf &stBuf = g_stBPBufMgr.astBuf[i];
        stBuf.usBid = static_cast<uint16_t>(i);
        stBuf.usSlabId = 0;
        stBuf.pucData = nullptr;
        stBuf.stNode = BP_ListNode();
        BP_Write<BP_ListCtrl *>(stBuf.pstQueue, nullptr);
        BP_Write<uint16_t>(stBuf.usLen, 0);
        BP_Write<uint8_t>(stBuf.ucFlag, 0);
        g_stBPBufMgr.stSpareList.PushFront(&stBuf);
    }
}

// How many free buffers of a size stay back from callers without exemption; sizes not listed keep none back and
// are never asked about.
struct BP_SlabReserve {
    uint32_t ulSize;
    uint32_t ulKeep;
};
static constexpr BP_SlabReserve g_astReserve[] = {
    {128, 10}, {256, 5}, {512, 2}, {1024, 0}, {2048, 0}, {4096, 0}, {16384, 0}, {8, 0},
};

static uint32_t BP_NeedFreeOf(uint32_t ulSize) {
    for (const BP_SlabReserve &stRow : g_astReserve) {
        if (stRow.ulSize == ulSize) {
            return stRow.ulKeep + 1;
        }
    }
    return 0;
}

// Gives class ulClass its buffers, starting at pucData; returns the first byte behind them.
static uint8_t *BP_InitSlab(uint32_t ulClass, uint8_t *pucData) {
    BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[ulClass];
    stSlab.ulSize = g_astSlabConfig[ulClass].ulSize;
    stSlab.ulTotal = g_astSlabConfig[ulClass].ulNum;
    BP_Write(stSlab.ulFreeNum, stSlab.ulTotal);
    BP_Write(stSlab.ulUsedNum, 0U);
    stSlab.ulNeedFree = BP_NeedFreeOf(stSlab.ulSize);
    stSlab.semLock.Init(1);
    stSlab.stFreeList.Init();
    for (uint32_t i = 0; i < stSlab.ulTotal; i++) {
        BP_SlabBuf *pstBuf = g_stBPBufMgr.stSpareList.PopFront();
        pstBuf->pucData = pucData;
        pstBuf->usSlabId = static_cast<uint16_t>(ulClass);
        stSlab.stFreeList.PushFront(pstBuf);
        pucData += stSlab.ulSize;
    }
    return pucData;
}

uint32_t BP_InitBufManager() {
    BP_InitHeaders();
    uint32_t ulNum = 0;
    uint32_t ulBytes = 0;
    for (const BP_SlabConfig &stRow : g_astSlabConfig) {
        ulNum += stRow.ulNum;
        ulBytes += stRow.ulSize * stRow.ulNum;
    }
    if (ulNum > BP_SLAB_MAX_NUM) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]totle slab buf num %u > %d.", __func__, ulNum,
                     static_cast<int>(BP_SLAB_MAX_NUM));
        return BP_ERR_FAIL;
    }
    g_stBPBufMgr.pucData = static_cast<uint8_t *>(calloc(1, ulBytes));
    if (g_stBPBufMgr.pucData == nullptr) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to calloc new memory. size=%u", __func__, ulBytes);
        return BP_ERR_FAIL;
    }
    uint8_t *pucNext = g_stBPBufMgr.pucData;
    for (uint32_t i = 0; i < BP_SLAB_CLASS_NUM; i++) {
        pucNext = BP_InitSlab(i, pucNext);
    }
    BP_Write(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_TIMER], 0U);
    BP_Write(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_MSG], 0U);
    if (pthread_mutex_init(&g_stBPbuffLogMgr.stLock, nullptr) != 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]fail to init BuffLogMgr lock", __func__);
        return BP_ERR_FAIL;
    }
    return BP_OK;
}

// The class that serves a request, BP_SLAB_CLASS_NUM if none does.
static uint32_t BP_ChooseSlab(uint32_t ulSize, uint32_t ulType) {
    if (ulType > BP_SLAB_TYPE_TIMER) {
        return BP_SLAB_CLASS_NUM;
    }
    uint32_t ulClass = ulType == BP_SLAB_TYPE_TIMER ? BP_SLAB_CLASS_TIMER : 0;
    const uint32_t ulEnd = ulType == BP_SLAB_TYPE_TIMER ? BP_SLAB_CLASS_NUM : BP_SLAB_CLASS_TIMER;
    while (ulClass < ulEnd && g_astSlabConfig[ulClass].ulSize < ulSize) {
        ulClass++;
    }
    return ulClass < ulEnd ? ulClass : BP_SLAB_CLASS_NUM;
}

bool BP_IsExemptName(const char *pcName) {
    for (const char *pcExempt : {"ks", "ks_cmd", "MW_MWARE_cmd", "MW_IWARE_cmd"}) {
        if (strcmp(pcName, pcExempt) == 0) {
            return true;
        }
    }
    return false;
}

// Threads that are no module's take few buffers and may look their name up.
static bool BP_IsExemptCaller() {
    static thread_local const BP_ModuleInfo *pstModule = nullptr; // asked for once a thread
    if (pstModule == nullptr) {
        pstModule = BP_GetThreadModule();
    }
    return pstModule != nullptr ? pstModule->bExempt : BP_IsExemptName(BP_GetCurThreadName());
}

static void BP_LogReserve(const BP_SlabMgr &stSlab, uint32_t ulFree) {
    BP_LOG_DEBUG("[%s]slab buff(size %u) has only %u.", "BP_IsSlabBufAvaliable", stSlab.ulSize, ulFree);
}

uint32_t BP_IsSlabBufAvaliable(uint32_t ulClass) {
    if (ulClass >= BP_SLAB_CLASS_NUM) {
        return 0;
    }
    const BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[ulClass];
    const uint32_t ulFree = BP_Read(stSlab.ulFreeNum);
    if (ulFree < stSlab.ulNeedFree) {
        BP_LogReserve(stSlab, ulFree);
        return 0;
    }
    return 1;
}

// Needs the mutex of g_stBPbuffLogMgr.
static void BP_DumpAll() {
    BP_DumpSlabLog();
    BP_DumpTimerLog();
    BP_CollectKeyLog();
}

void BP_WriteDumps() {
    pthread_mutex_lock(&g_stBPbuffLogMgr.stLock);
    BP_DumpAll();
    pthread_mutex_unlock(&g_stBPbuffLogMgr.stLock);
}

// The first shortage since the latches were open leaves its evidence; whoever comes later finds it there.
static void BP_ReportShortage(uint32_t ulSize, uint32_t ulType) {
    pthread_mutex_lock(&g_stBPbuffLogMgr.stLock);
    if (BP_Read(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_TIMER]) == 0 &&
        BP_Read(g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_MSG]) == 0) {
        BP_LOG_ERROR(BP_ERR_FAIL, "[%s]Slab full, Print Slab_*.log. Size=%u, Type=%d", "BP_SlabGetBuf", ulSize,
                     static_cast<int>(ulType));
        BP_DumpAll();
        const uint32_t ulLatch = ulType == BP_SLAB_TYPE_TIMER ? BP_BUF_LOG_TIMER : BP_BUF_LOG_MSG;
        BP_Write(g_stBPbuffLogMgr.aulLatch[ulLatch], 1U);
    }
    pthread_mutex_unlock(&g_stBPbuffLogMgr.stLock);
}

static void BP_OpenTimerLatch(uint32_t ulFree) {
    std::atomic<uint32_t> &ulLatch = g_stBPbuffLogMgr.aulLatch[BP_BUF_LOG_TIMER];
    if (BP_Read(ulLatch) != 0 && ulFree > BP_TIMER_PLENTY) {
        BP_Write(ulLatch, 0U);
    }
}

static void BP_SlabCount(BP_SlabMgr &stSlab, uint32_t ulFreeNum) {
    BP_Write(stSlab.ulFreeNum, ulFreeNum);
    BP_Write(stSlab.ulUsedNum, stSlab.ulTotal - ulFreeNum);
}

// Needs the class lock.
static void BP_Grow(std::atomic<uint32_t> &ulNumber) {
    BP_Write(ulNumber, BP_Read(ulNumber) + 1);
}

// Takes the first free buffer if at least ulNeedFree are free. How many were free stands at pulFree: looking at
// the count before the lock is held would cost contending threads as much again.
static BP_SlabBuf *BP_SlabTake(BP_SlabMgr &stSlab, uint32_t ulSize, uint32_t ulNeedFree, uint32_t *pulFree) {
    BP_SlabBuf *pstBuf = nullptr;
    {
        const BP_SemGuard stGuard(stSlab.semLock);
        *pulFree = BP_Read(stSlab.ulFreeNum);
        pstBuf = *pulFree >= ulNeedFree ? stSlab.stFreeList.PopFront() : nullptr;
        if (pstBuf == nullptr) {
            return nullptr;
        }
        BP_SlabCount(stSlab, *pulFree - 1);
        BP_Grow(pstBuf->ulGeneration);
    }
    // On no list and marked free it is touched by no other thread, so the lock need not be held any longer.
    BP_Write(pstBuf->usLen, static_cast<uint16_t>(ulSize));
    pstBuf->ucFlag.store(BP_BUF_TAKEN, std::memory_order_release);
    return pstBuf;
}

BP_SlabBuf *BP_SlabGetBuf(uint32_t ulSize, uint32_t ulType) {
    const uint32_t ulClass = BP_ChooseSlab(ulSize, ulType);
    if (ulClass == BP_SLAB_CLASS_NUM) {
        return nullptr;
    }
    BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[ulClass];
    const bool bExempt = BP_IsExemptCaller();
    const uint32_t ulNeedFree = bExempt ? 0 : stSlab.ulNeedFree;
    uint32_t ulFree = 0;
    BP_SlabBuf *pstBuf = BP_SlabTake(stSlab, ulSize, ulNeedFree, &ulFree);
    if (pstBuf == nullptr && ulFree < ulNeedFree) {
        BP_LogReserve(stSlab, ulFree);
        BP_ReportShortage(ulSize, ulType);
    } else if (pstBuf == nullptr) {
        BP_LOG_DEBUG("[%s]fail to get buf from slab manager %d.", __func__, static_cast<int>(ulClass));
    } else if (!bExempt && ulType == BP_SLAB_TYPE_TIMER) {
        BP_OpenTimerLatch(ulFree);
    }
    return pstBuf;
}

// Under the class lock, so that of two threads that free one generation only one gives it back, and the other
// cannot hit the next.
static bool BP_SlabGiveBack(BP_SlabBuf *pstBuf, uint32_t ulGeneration) {
    BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[pstBuf->usSlabId];
    const BP_SemGuard stGuard(stSlab.semLock);
    if (pstBuf->ucFlag.load(std::memory_order_acquire) == 0 || BP_Read(pstBuf->ulGeneration) != ulGeneration) {
        return false;
    }
    BP_Write<uint8_t>(pstBuf->ucFlag, 0);
    BP_Write<uint16_t>(pstBuf->usLen, 0);
    BP_Grow(pstBuf->ulMarkSeq);
    stSlab.stFreeList.PushFront(pstBuf);
    BP_SlabCount(stSlab, BP_Read(stSlab.ulFreeNum) + 1);
    return true;
}

static void BP_ReportDoubleFree(const BP_SlabBuf *pstBuf) {
    const BP_ModuleInfo *pstModule = BP_GetCurModule();
    const uint16_t usSlabId = pstBuf->usSlabId;
    if (pstModule != nullptr) {
        BP_LOG_WARN(0, "[%s]%s buffer has been freed - slab %hu bid:%hu f:%d", "BP_SlabFreeBuf",
                    pstModule->szModuleName, usSlabId, pstBuf->usBid, 0);
    } else {
        BP_LOG_WARN(0, "[%s]buffer has been freed - slab %hu bid:%hu f:%d", "BP_SlabFreeBuf", usSlabId,
                    pstBuf->usBid, 0);
    }
}

// The queue that the buffer is linked into may let go of it until its lock is held. Returns whether the buffer
// was still there, in the same generation; then it is linked nowhere and the caller's.
static bool BP_UnlinkFromQueue(BP_SlabBuf *pstBuf, BP_ListCtrl *pstQueue, uint32_t ulGeneration) {
    const BP_SemGuard stGuard(pstQueue->semLock);
    if (BP_Read(pstBuf->pstQueue) != pstQueue || BP_Read(pstBuf->ulGeneration) != ulGeneration) {
        return false;
    }
    BP_List<BP_SlabBuf>::Remove(pstBuf);
    pstBuf->pstQueue.store(nullptr, std::memory_order_release);
    return true;
}

uint32_t BP_SlabFreeBuf(BP_SlabBuf *pstSlabBuf) {
    if (pstSlabBuf == nullptr) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid input params.", __func__);
        return BP_ERR_PARAM;
    }
    if (pstSlabBuf->usSlabId >= BP_SLAB_CLASS_NUM) {
        BP_LOG_ERROR(BP_ERR_PARAM, "[%s]invalid slabid %hu.", __func__, pstSlabBuf->usSlabId);
        return BP_ERR_PARAM;
    }
    // Before the flag: if the buffer was free then, whoever takes it meanwhile makes it one of a later
    // generation, which BP_SlabGiveBack leaves alone.
    const uint32_t ulGeneration = pstSlabBuf->ulGeneration.load(std::memory_order_acquire);
    if (BP_Read(pstSlabBuf->ucFlag) == 0) {
        BP_ReportDoubleFree(pstSlabBuf);
        return BP_OK;
    }
    // Acquired, so that a link that a queue's reader has just let go of is really free to be used.
    BP_ListCtrl *pstQueue = pstSlabBuf->pstQueue.load(std::memory_order_acquire);
    if (pstQueue != nullptr) {
        if (!BP_UnlinkFromQueue(pstSlabBuf, pstQueue, ulGeneration)) {
            if (BP_Read(pstSlabBuf->ulGeneration) != ulGeneration) {
                BP_ReportDoubleFree(pstSlabBuf);
            }
            return BP_OK;
        }
        BP_LOG_WARN(0, "[%s]buffer has not be del - slab %hu bid:%hu f:%d", __func__, pstSlabBuf->usSlabId,
                    pstSlabBuf->usBid, 0);
    }
    if (!BP_SlabGiveBack(pstSlabBuf, ulGeneration)) {
        BP_ReportDoubleFree(pstSlabBuf);
    }
    return BP_OK;
}

uint32_t BP_SlabMarkSeq(const BP_SlabBuf *pstSlabBuf) {
    return BP_Read(pstSlabBuf->ulMarkSeq);
}

static BP_Sem &BP_ClassLock(const BP_SlabBuf *pstBuf) {
    return g_stBPBufMgr.astSlab[pstBuf->usSlabId].semLock;
}

void BP_SlabMarkTimeout(BP_SlabBuf *pstSlabBuf, uint32_t ulMarkSeq) {
    const BP_SemGuard stGuard(BP_ClassLock(pstSlabBuf));
    if (BP_Read(pstSlabBuf->ulMarkSeq) == ulMarkSeq) {
        BP_SetFlag(pstSlabBuf, BP_BUF_TIMEOUT);
    }
}

bool BP_SlabEndMark(BP_SlabBuf *pstSlabBuf, uint32_t ulMarkSeq) {
    const BP_SemGuard stGuard(BP_ClassLock(pstSlabBuf));
    if (BP_Read(pstSlabBuf->ulMarkSeq) != ulMarkSeq) {
        return false;
    }
    BP_Grow(pstSlabBuf->ulMarkSeq);
    return (BP_ClearFlag(pstSlabBuf, BP_BUF_TIMEOUT) & BP_BUF_TIMEOUT) != 0;
}

void BP_SlabRenewMark(BP_SlabBuf *pstSlabBuf) {
    const BP_SemGuard stGuard(BP_ClassLock(pstSlabBuf));
    BP_Grow(pstSlabBuf->ulMarkSeq);
    BP_ClearFlag(pstSlabBuf, BP_BUF_TIMEOUT | BP_BUF_DEQUEUED);
}

uint32_t BP_GetSlabInfo(uint32_t ulClass, BP_SlabInfo *pstInfo) {
    if (ulClass >= BP_SLAB_CLASS_NUM || pstInfo == nullptr) {
        return BP_ERR_PARAM;
    }
    BP_SlabMgr &stSlab = g_stBPBufMgr.astSlab[ulClass];
    const BP_SemGuard stGuard(stSlab.semLock);
    *pstInfo = {stSlab.ulSize, stSlab.ulTotal, BP_Read(stSlab.ulFreeNum), BP_Read(stSlab.ulUsedNum)};
    return BP_OK;
}
