// In-process pairs, in the place of two modules.
#include <thread>

#include "bench/bench_support.h"

static constexpr uint32_t BENCH_TIMES = 500;
[[maybe_unused]] static constexpr size_t BENCH_SIZE = 46;

#ifdef KS_BENCH_ZEROMQ
#include <zmq.h>

static void WakeupZeroMq(benchmark::State &state) {
    BenchPin(0);
    void *pContext = zmq_ctx_new();
    void *pNear = zmq_socket(pContext, ZMQ_PAIR);
    zmq_bind(pNear, "inproc://pair");
    void *pFar = zmq_socket(pContext, ZMQ_PAIR);
    zmq_connect(pFar, "inproc://pair");
    BenchBatches(state, BENCH_TIMES, [&] {
        char acMsg[BENCH_SIZE] = {};
        std::thread stOther([&] {
            char acFar[BENCH_SIZE] = {};
            for (uint32_t i = 0; i < BENCH_TIMES; i++) {
                zmq_recv(pFar, acFar, sizeof(acFar), 0);
                zmq_send(pFar, acFar, sizeof(acFar), 0);
            }
        });
        const double dTook = BenchTime(BENCH_TIMES, [&] {
            zmq_send(pNear, acMsg, sizeof(acMsg), 0);
            zmq_recv(pNear, acMsg, sizeof(acMsg), 0);
        });
        stOther.join();
        return dTook;
    });
    zmq_close(pFar);
    zmq_close(pNear);
    zmq_ctx_term(pContext);
    BenchPin(-1);
}
BENCHMARK(WakeupZeroMq)->Name("wakeup/ZeroMQ")->UseManualTime();
#endif

#ifdef KS_BENCH_NNG
#include <nng/nng.h>
#include <nng/protocol/pair0/pair.h>

static void WakeupNng(benchmark::State &state) {
    BenchPin(0);
    nng_socket stNear;
    nng_socket stFar;
    if (nng_pair0_open(&stNear) != 0 || nng_listen(stNear, "inproc://pair", nullptr, 0) != 0 ||
        nng_pair0_open(&stFar) != 0 || nng_dial(stFar, "inproc://pair", nullptr, 0) != 0) {
        state.SkipWithError("no pair");
    }
    BenchBatches(state, BENCH_TIMES, [&] {
        char acMsg[BENCH_SIZE] = {};
        size_t ulLen = sizeof(acMsg);
        std::thread stOther([&] {
            char acFar[BENCH_SIZE] = {};
            for (uint32_t i = 0; i < BENCH_TIMES; i++) {
                size_t ulFar = sizeof(acFar);
                nng_recv(stFar, acFar, &ulFar, 0);
                nng_send(stFar, acFar, ulFar, 0);
            }
        });
        const double dTook = BenchTime(BENCH_TIMES, [&] {
            nng_send(stNear, acMsg, sizeof(acMsg), 0);
            ulLen = sizeof(acMsg);
            nng_recv(stNear, acMsg, &ulLen, 0);
        });
        stOther.join();
        return dTook;
    });
    nng_close(stNear);
    nng_close(stFar);
    BenchPin(-1);
}
BENCHMARK(WakeupNng)->Name("wakeup/nng")->UseManualTime();
#endif
