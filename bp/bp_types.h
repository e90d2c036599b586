// Constants and records that every room of the runtime shares.
//
// Fields that are read without the lock that guards their changes are atomics, accessed relaxed: such a read is
// a snapshot and orders nothing. Where more depends on it, the access names its order. A published module's ID
// and name do not change and are plain.
#ifndef BP_BP_TYPES_H
#define BP_BP_TYPES_H

#include <atomic>
#include <cstdint>

#include "bp/bp_list.h"
#include "bp/bp_sem.h"

// Results.
constexpr uint32_t BP_OK = 0;
constexpr uint32_t BP_ERR_FAIL = 1;
constexpr uint32_t BP_ERR_PARAM = 2;
constexpr uint32_t BP_ERR_NO_MEM = 3;
constexpr uint32_t BP_ERR_NO_MODULE = 1041;    // the module concerned is not registered
constexpr uint32_t BP_ERR_CMD_CALL = 1056;     // log code of the console's and the command call's failures
constexpr uint32_t BP_ERR_SYNC_TIMEOUT = 1057; // a synchronous wait ran out

// Special module IDs; all others are opaque numbers from the configuration table.
constexpr uint32_t BP_MODULE_ID_MAIN = 0xFFFFFFFF; // the main module of whichever process asks
constexpr uint32_t BP_MODULE_ID_MWARE_CMD = 0xFFFFFFFE;
constexpr uint32_t BP_MODULE_ID_IWARE_CMD = 0xFFFFFFFD;
constexpr uint32_t BP_MODULE_ID_EXT = 0xFFFFFFFC;

constexpr uint32_t BP_NO_LIMIT = 0xFFFFFFFF;

// Reads and updates of fields that carry no order.
template <typename T>
T BP_Read(const std::atomic<T> &value) {
    return value.load(std::memory_order_relaxed);
}
template <typename T>
void BP_Write(std::atomic<T> &value, T newValue) {
    value.store(newValue, std::memory_order_relaxed);
}

// Control of a pool or queue of records T: free records, used records, one lock for both lists.
template <typename T>
struct BP_ListCtrlOf {
    uint32_t ulMaxNum = 0; // stated capacity, BP_NO_LIMIT for none; the operations do not enforce it
    uint32_t ulCurNum = 0;
    BP_List<T> stFreeList;
    BP_List<T> stUsedList;
    BP_Sem semLock;

    // Empties the control. Nobody may hold the lock.
    void Init(uint32_t ulMax) {
        ulMaxNum = ulMax;
        ulCurNum = 0;
        stFreeList.Init();
        stUsedList.Init();
        semLock.Init(1);
    }
};

struct BP_SlabBuf;

// A queue of buffers; they hang in stUsedList.
using BP_ListCtrl = BP_ListCtrlOf<BP_SlabBuf>;

// State bits of a buffer, 0 while it is free.
constexpr uint8_t BP_BUF_TAKEN = 0x1;
constexpr uint8_t BP_BUF_DEQUEUED = 0x2; // a queue has given it out
constexpr uint8_t BP_BUF_TIMEOUT = 0x4;  // the synchronous request in it ran out

// Header of a buffer, by which it is handed around; the bytes themselves lie at pucData. Each has a cache line
// of its own, so that threads with different buffers do not meet.
struct alignas(64) BP_SlabBuf {
    uint16_t usBid = 0;         // buffer ID, the header's index
    uint16_t usSlabId = 0;      // size class that owns the buffer
    uint8_t *pucData = nullptr; // the class's size in bytes, 8-byte aligned
    std::atomic<uint16_t> usLen{0};
    std::atomic<uint8_t> ucFlag{0};
    BP_ListNode stNode; // in its class's free list, or in one queue; null while code holds the buffer

    // Changed under the class lock. The generation grows when the buffer is taken, and tells a second free of
    // one generation from the first of the next. The mark number grows when the buffer is given back, and
    // whenever a time-out mark that is still to come would be meant for a message that it no longer holds.
    std::atomic<uint32_t> ulGeneration{0};
    std::atomic<uint32_t> ulMarkSeq{0};
    // The queue the buffer is linked into; written under that queue's lock.
    std::atomic<BP_ListCtrl *> pstQueue{nullptr};
};

// Sets or clears bits of the buffer's flag and returns it as it was. Any thread.
inline uint8_t BP_SetFlag(BP_SlabBuf *pstBuf, uint8_t ucBits) {
    return pstBuf->ucFlag.fetch_or(ucBits, std::memory_order_relaxed);
}
inline uint8_t BP_ClearFlag(BP_SlabBuf *pstBuf, uint8_t ucBits) {
    return pstBuf->ucFlag.fetch_and(static_cast<uint8_t>(~ucBits), std::memory_order_relaxed);
}

#endif
