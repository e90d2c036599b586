// Fresh buffers put on a queue and taken off again.
#include "bench/bench_process.h"
#include "bench/bench_support.h"

static constexpr uint32_t BENCH_BUF_NUM = 200;

static void QueueFloor(benchmark::State &state) {
    static BP_SlabBuf astBuf[BENCH_BUF_NUM];
    static BP_List<BP_SlabBuf> stList;
    static sem_t semLock;
    sem_init(&semLock, 0, 1);
    BenchBatches(state, BENCH_BUF_NUM, [] {
        const double dStart = BenchNow();
        for (BP_SlabBuf &stBuf : astBuf) {
            sem_wait(&semLock);
            stList.PushBack(&stBuf);
            sem_post(&semLock);
        }
        for (uint32_t i = 0; i < BENCH_BUF_NUM; i++) {
            sem_wait(&semLock);
            benchmark::DoNotOptimize(stList.PopFront());
            sem_post(&semLock);
        }
        return BenchNow() - dStart;
    });
}
BENCHMARK(QueueFloor)->Name("queue/floor")->UseManualTime();

static void QueueRuntime(benchmark::State &state) {
    static BP_ListCtrl stQueue;
    stQueue.Init(BP_NO_LIMIT);
    BenchBatches(state, BENCH_BUF_NUM, [] {
        BP_SlabBuf *apstBuf[BENCH_BUF_NUM];
        for (BP_SlabBuf *&pstBuf : apstBuf) {
            pstBuf = BP_SlabGetBuf(100, BP_SLAB_TYPE_MSG);
        }
        const double dStart = BenchNow();
        for (BP_SlabBuf *pstBuf : apstBuf) {
            BP_ModuleAddMsg(&stQueue, pstBuf);
        }
        for (uint32_t i = 0; i < BENCH_BUF_NUM; i++) {
            benchmark::DoNotOptimize(BP_ModuleGetMsg(&stQueue, BP_GET_FIRST, 0));
        }
        const double dTook = BenchNow() - dStart;
        for (BP_SlabBuf *pstBuf : apstBuf) {
            BP_SlabFreeBuf(pstBuf);
        }
        return dTook;
    });
}
BENCHMARK(QueueRuntime)->Name("queue/runtime")->UseManualTime();
