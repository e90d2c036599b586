// The timer record and its types. The pool of records is part of the process record.
//
// A working timer belongs to the pool lock (stTimerCtrl.semLock). What the timer dump shows is atomic, because
// the dump may run inside the scan, which holds that lock, and therefore reads without it.
#ifndef BP_BP_TIMER_TIMER_INFO_H
#define BP_BP_TIMER_TIMER_INFO_H

#include <atomic>
#include <cstdint>

#include "bp/bp_types.h"

constexpr uint32_t BP_MAX_TIMER_NUM = 64;

// Types. Once and cycle run off a millisecond interval, the others fire at a local time of day.
constexpr uint32_t BP_TIMER_ONCE = 0;
constexpr uint32_t BP_TIMER_CYCLE = 1;
constexpr uint32_t BP_TIMER_DAY = 2;
constexpr uint32_t BP_TIMER_WEEK = 3;
constexpr uint32_t BP_TIMER_MONTH = 4;
constexpr uint32_t BP_TIMER_DATE = 5;

// Kinds of callback.
constexpr uint32_t BP_TIMER_CB_COM = 0;
constexpr uint32_t BP_TIMER_CB_EXT = 1;

// A callback runs in the owning module's thread, outside every lock; its result is not used. It may register
// and unregister timers, itself included.
using BP_PfnTimerCom = uint32_t (*)(uint32_t ulTimerID, uint32_t ulParam);
using BP_PfnTimerExt = uint32_t (*)(uint32_t ulTimerID, uint32_t ulParam1, int32_t lParam2);

// Seconds since 1970, or of a length of time, and microseconds below a million.
struct BP_TimePair {
    std::atomic<int32_t> lSec{0};
    std::atomic<int32_t> lUsec{0};
};

struct BP_Timer {
    std::atomic<uint32_t> ulTimerID{0}; // 0 when not working
    std::atomic<uint32_t> ulModuleID{0};
    std::atomic<uint32_t> ulType{0};
    std::atomic<uint32_t> ulCbType{0};
    std::atomic<BP_PfnTimerCom> pfnComCb{nullptr};
    std::atomic<BP_PfnTimerExt> pfnExtCb{nullptr};
    uint32_t ulComParam = 0;
    uint32_t ulExtParam1 = 0;
    int32_t lExtParam2 = 0;
    uint16_t usDay = 0;                 // weekday, 0 = Sunday, or day of the month
    std::atomic<int32_t> lInterval{0};  // milliseconds
    std::atomic<int32_t> lStartTime{0}; // seconds since 1970; a calendar timer does not count from before it
    std::atomic<int32_t> lStopTime{0};  // likewise; 0 = no end
    std::atomic<uint16_t> usHour{0};
    std::atomic<uint16_t> usMinute{0};
    std::atomic<uint16_t> usSecond{0};
    BP_TimePair stCurExpire;
    BP_TimePair stNextExpire;
    BP_TimePair stTimeout; // both parts 0: not scanned
    BP_Sem semTimer;       // not taken; the pool lock serialises
    BP_ListNode stNode;
    uint32_t ulNotices = 0;   // queued and not yet taken up by a module's thread
    int64_t lHoldUntilMs = 0; // monotonic; a timer that is behind does not fire again in a pass before then
    std::atomic<uint32_t> ulWorkSeq{0}; // place in the working list, which is kept in rising order; 0 when free
};

// Name of a type, "?" for an unknown one.
const char *BP_TimerTypeName(uint32_t ulType);

#endif
