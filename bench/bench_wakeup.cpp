// A message to another module of the process, and its answer back.
#include <thread>

#include "bench/bench_process.h"
#include "bench/bench_support.h"

static constexpr uint32_t BENCH_TIMES = 2000;
static constexpr uint32_t BENCH_BALL_CODE = 10;

static void WakeupFloor(benchmark::State &state) {
    BenchPin(0);
    sem_t semThere;
    sem_t semBack;
    sem_init(&semThere, 0, 0);
    sem_init(&semBack, 0, 0);
    BenchBatches(state, BENCH_TIMES, [&] {
        std::thread stOther([&] {
            for (uint32_t i = 0; i < BENCH_TIMES; i++) {
                sem_wait(&semThere);
                sem_post(&semBack);
            }
        });
        const double dTook = BenchTime(BENCH_TIMES, [&] {
            sem_post(&semThere);
            sem_wait(&semBack);
        });
        stOther.join();
        return dTook;
    });
    BenchPin(-1);
}
BENCHMARK(WakeupFloor)->Name("wakeup/floor")->UseManualTime();

static uint32_t g_ulLeft;
static BP_Sem g_semOver(0);

static uint32_t Return(uint32_t, BP_StructMsg *, uint32_t) {
    BP_PostMsg(BENCH_CTRL, BENCH_BALL_CODE, "ball", 4);
    return BP_OK;
}

static uint32_t Serve(uint32_t, BP_StructMsg *, uint32_t) {
    if (g_ulLeft-- != 0) {
        BP_PostMsg(BENCH_PTZ, BENCH_BALL_CODE, "ball", 4);
    } else {
        g_semOver.Post();
    }
    return BP_OK;
}

static void WakeupRuntime(benchmark::State &state) {
    BP_RegistMsgProc(BENCH_CTRL, BP_PROC_TABLE_NORMAL, BENCH_BALL_CODE, Serve, 0);
    BP_RegistMsgProc(BENCH_PTZ, BP_PROC_TABLE_NORMAL, BENCH_BALL_CODE, Return, 0);
    BenchPin(0);
    BenchBatches(state, BENCH_TIMES, [] {
        g_ulLeft = BENCH_TIMES;
        return BenchTime(1, [] {
            BP_PostMsg(BENCH_CTRL, BENCH_BALL_CODE, "ball", 4);
            g_semOver.Wait();
        });
    });
    BenchPin(-1);
}
BENCHMARK(WakeupRuntime)->Name("wakeup/runtime")->UseManualTime();
