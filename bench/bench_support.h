// What the benchmarks share. A path is measured as NAME/runtime beside NAME/floor: the same work done by hand,
// with the least that the system offers for it.
#ifndef BENCH_BENCH_SUPPORT_H
#define BENCH_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

// Binds every thread of this process, and those it starts from now on, to the one processor; to all of them
// for -1. Where a sleeping processor must be woken, as on a virtual machine, that costs more than all the rest.
void BenchPin(int lCpu);

double BenchNow(); // seconds

// The seconds that so many repetitions of the work take.
template <typename Work>
double BenchTime(uint32_t ulTimes, Work work) {
    const double dStart = BenchNow();
    for (uint32_t i = 0; i < ulTimes; i++) {
        work();
    }
    return BenchNow() - dStart;
}

// Each batch is ulTimes repetitions, which took the seconds that it returns; items_per_second counts
// repetitions.
template <typename Batch>
void BenchBatches(benchmark::State &state, uint32_t ulTimes, Batch batch) {
    for (auto _ : state) {
        state.SetIterationTime(batch());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * ulTimes);
}

#endif
