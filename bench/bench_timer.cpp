// One scan of a full timer pool in which nothing is due.
#include <sys/time.h>

#include "bench/bench_process.h"
#include "bench/bench_support.h"

static void ScanFloor(benchmark::State &state) {
    struct timeval stNow;
    BenchBatches(state, 1000, [&] {
        return BenchTime(1000, [&] {
            for (uint32_t i = 0; i < BP_MAX_TIMER_NUM; i++) {
                gettimeofday(&stNow, nullptr);
                benchmark::DoNotOptimize(stNow);
            }
        });
    });
}
BENCHMARK(ScanFloor)->Name("timers/floor")->UseManualTime();

static uint32_t OnTimer(uint32_t, uint32_t) {
    return BP_OK;
}

static void ScanRuntime(benchmark::State &state) {
    uint32_t aulTimerID[BP_MAX_TIMER_NUM] = {};
    for (uint32_t &ulTimerID : aulTimerID) {
        if (BP_StartOnceTimer(BENCH_CTRL, 86400 * 1000, OnTimer, 0, &ulTimerID) != BP_OK) {
            state.SkipWithError("no timer");
        }
    }
    BenchBatches(state, 1000, [] { return BenchTime(1000, BP_CheckTimerExpire); });
    for (const uint32_t ulTimerID : aulTimerID) {
        BP_UnregistTimer(ulTimerID);
    }
}
BENCHMARK(ScanRuntime)->Name("timers/runtime")->UseManualTime();
