// Registration of timers. A timer belongs to a module, in whose thread its callback runs; any thread may
// register and unregister it, a callback too. Timers have the resolution of the main thread's idle passes, 20
// ms, and a main thread that datagrams keep busy delays them.
//
// An expiry that finds no buffer for its notice is lost. A timer whose last expiry is lost (the only one of a
// once or date timer, the last before the end of a day, week or month timer) keeps its record until it is
// unregistered, unless an earlier notice of it is handled later. timer_calc.h says what a clock that is set
// does to timers.
#ifndef BP_BP_TIMER_TIMER_REGIST_H
#define BP_BP_TIMER_TIMER_REGIST_H

#include <cstdint>

#include "bp/bp_timer/timer_info.h"

constexpr uint32_t BP_ERR_TIMER_OWNER = 1073; // the timer's owning module is not registered any more
constexpr uint32_t BP_ERR_NO_TIMER = 1074;    // no working timer has the ID
constexpr uint32_t BP_ERR_TIMER_OVER = 1075;  // the timer would never fire: its date or end has passed
constexpr uint32_t BP_ERR_TIMER_FULL = 1076;  // all records are in use

// One timer. Fields that its type or kind of callback does not use are ignored.
struct BP_TimerParam {
    uint32_t ulModuleID; // owner
    uint32_t ulType;
    uint32_t ulCbType;
    BP_PfnTimerCom pfnComCb; // of BP_TIMER_CB_COM, with its parameter
    uint32_t ulComParam;
    BP_PfnTimerExt pfnExtCb; // of BP_TIMER_CB_EXT, with its parameters
    uint32_t ulExtParam1;
    int32_t lExtParam2;
    int32_t lInterval; // once, cycle: milliseconds, above 0
    uint16_t usDay; // week: 0 = Sunday to 6; month: 1 to 31, a day that a month lacks rolls into the next month
    uint16_t usHour; // day, week, month, date: local time of day
    uint16_t usMinute;
    uint16_t usSecond;
    int32_t lStartTime; // day, week, month: not before; date: any moment of the date; seconds since 1970
    int32_t lStopTime;  // day, week, month: not from then on; 0 = no end
};

// Starts a timer and stores its ID. BP_OK; BP_ERR_PARAM for a null argument or callback, an unknown type or
// kind, or a field out of its range; BP_ERR_NO_MODULE when the owner is not registered; BP_ERR_TIMER_FULL;
// BP_ERR_TIMER_OVER. A refusal has an ERROR line and changes nothing.
uint32_t BP_RegistTimer(const BP_TimerParam *pstParam, uint32_t *pulTimerID);

// The common cases: call this every, or once after, lInterval milliseconds in the module's thread. Results as
// above.
uint32_t BP_StartCycleTimer(uint32_t ulModuleID, int32_t lInterval, BP_PfnTimerCom pfnComCb,
                            uint32_t ulComParam, uint32_t *pulTimerID);
uint32_t BP_StartOnceTimer(uint32_t ulModuleID, int32_t lInterval, BP_PfnTimerCom pfnComCb, uint32_t ulComParam,
                           uint32_t *pulTimerID);

// Ends a timer: the notices that its module has not taken yet are given back, and its callback is not called
// for them. When called from another thread than the module's, one callback may be running or about to be
// called, and is not waited for: what its parameter stands for must outlive it. BP_OK; BP_ERR_FAIL when the
// calling thread belongs to no module and the process has no main module; BP_ERR_NO_TIMER; BP_ERR_TIMER_OWNER,
// the timer being ended all the same.
uint32_t BP_UnregistTimer(uint32_t ulTimerID);

// The work of BP_UnregistTimer, without its line.
uint32_t BP_UnregistTimerProc(uint32_t ulTimerID);

#endif
