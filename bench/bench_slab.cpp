// A buffer taken from its class and given back.
#include <atomic>
#include <thread>

#include "bench/bench_process.h"
#include "bench/bench_support.h"

static constexpr uint32_t BENCH_TIMES = 200000;
static constexpr uint32_t BENCH_BUF_NUM = 256;

// A class's list, and nothing else of it.
struct BenchPool {
    BP_SlabBuf astBuf[BENCH_BUF_NUM];
    BP_List<BP_SlabBuf> stFreeList;
    sem_t semLock;

    BenchPool() {
        sem_init(&semLock, 0, 1);
        for (BP_SlabBuf &stBuf : astBuf) {
            stFreeList.PushFront(&stBuf);
        }
    }
    BP_SlabBuf *Take() {
        sem_wait(&semLock);
        BP_SlabBuf *pstBuf = stFreeList.PopFront();
        sem_post(&semLock);
        return pstBuf;
    }
    void Give(BP_SlabBuf *pstBuf) {
        sem_wait(&semLock);
        stFreeList.PushFront(pstBuf);
        sem_post(&semLock);
    }
};
static BenchPool g_stPool;

static double FloorTime() {
    return BenchTime(BENCH_TIMES, [] { g_stPool.Give(g_stPool.Take()); });
}

static double RuntimeTime() {
    return BenchTime(BENCH_TIMES, [] { BP_SlabFreeBuf(BP_SlabGetBuf(100, BP_SLAB_TYPE_MSG)); });
}

static void SlabFloor(benchmark::State &state) {
    BenchBatches(state, BENCH_TIMES, [] { return BenchInModule(BENCH_CTRL, FloorTime); });
}
BENCHMARK(SlabFloor)->Name("slab/floor")->UseManualTime();

static void SlabOther(benchmark::State &state) {
    BenchBatches(state, BENCH_TIMES, [] { return BenchInModule(BENCH_CTRL, RuntimeTime); });
}
BENCHMARK(SlabOther)->Name("slab/runtime")->UseManualTime();

static void SlabExempt(benchmark::State &state) {
    BenchBatches(state, BENCH_TIMES, [] { return BenchInModule(BP_MODULE_ID_MWARE_CMD, RuntimeTime); });
}
BENCHMARK(SlabExempt)->Name("slab/exempt")->UseManualTime();

static void SlabContendedFloor(benchmark::State &state) {
    BenchBatches(state, BENCH_TIMES, [] { return BenchInBothModules(FloorTime); });
}
BENCHMARK(SlabContendedFloor)->Name("slab contended/floor")->UseManualTime();

static void SlabContended(benchmark::State &state) {
    BenchBatches(state, BENCH_TIMES, [] { return BenchInBothModules(RuntimeTime); });
}
BENCHMARK(SlabContended)->Name("slab contended/runtime")->UseManualTime();
