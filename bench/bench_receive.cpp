// Datagrams of two sizes, from a sender that keeps to a window so that none is lost.
#include <arpa/inet.h>
#include <cstring>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "bench/bench_process.h"
#include "bench/bench_support.h"

static constexpr uint32_t BENCH_TIMES = 4096;
static constexpr uint32_t BENCH_COUNT_CODE = 20;
static constexpr uint16_t BENCH_FLOOR_PORT = 2999;

// As many datagrams as may be under way, and no more than there are buffers of the size.
static uint32_t Window(uint32_t ulSize) {
    return ulSize <= 128 ? 64 : 16;
}

static struct sockaddr_in Loopback(uint16_t usPort) {
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(usPort);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return stAddr;
}

static BP_Sem g_semWindow(0);
static BP_Sem g_semAll(0);
static uint32_t g_ulReceived;
static uint32_t g_ulHalf;

static void Count() {
    g_ulReceived++;
    if (g_ulReceived % g_ulHalf == 0) {
        g_semWindow.Post();
    }
    if (g_ulReceived == BENCH_TIMES) {
        g_semAll.Post();
    }
}

// Sends them all to the port and returns how long it takes until the last is counted.
static double Send(uint16_t usPort, const void *pData, uint32_t ulSize) {
    const struct sockaddr_in stAddr = Loopback(usPort);
    const int lSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    g_ulReceived = 0;
    g_ulHalf = Window(ulSize) / 2;
    g_semWindow.Init(2);
    const double dStart = BenchNow();
    for (uint32_t i = 0; i < BENCH_TIMES; i++) {
        if (i % g_ulHalf == 0) {
            g_semWindow.Wait();
        }
        sendto(lSocket, pData, ulSize, 0, reinterpret_cast<const struct sockaddr *>(&stAddr), sizeof(stAddr));
    }
    g_semAll.Wait();
    const double dTook = BenchNow() - dStart;
    close(lSocket);
    return dTook;
}

static void ReceiveFloor(benchmark::State &state) {
    const uint32_t ulSize = static_cast<uint32_t>(state.range(0));
    BenchPin(0);
    const int lSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in stOwn = Loopback(BENCH_FLOOR_PORT);
    if (bind(lSocket, reinterpret_cast<const struct sockaddr *>(&stOwn), sizeof(stOwn)) != 0) {
        state.SkipWithError("bind");
    }
    const std::string szData(ulSize, 'x');
    BenchBatches(state, BENCH_TIMES, [&] {
        std::thread stReceiver([&] {
            char acBuf[2048];
            struct sockaddr_in stFrom;
            for (uint32_t i = 0; i < BENCH_TIMES; i++) {
                socklen_t ulLen = sizeof(stFrom);
                recvfrom(lSocket, acBuf, sizeof(acBuf), 0, reinterpret_cast<struct sockaddr *>(&stFrom),
                         &ulLen);
                Count();
            }
        });
        const double dTook = Send(BENCH_FLOOR_PORT, szData.data(), ulSize);
        stReceiver.join();
        return dTook;
    });
    close(lSocket);
    BenchPin(-1);
}
BENCHMARK(ReceiveFloor)->Name("receive/floor")->Arg(46)->Arg(1024)->UseManualTime();

static uint32_t OnDatagram(uint32_t, BP_StructMsg *, uint32_t) {
    Count();
    return BP_OK;
}

static void ReceiveRuntime(benchmark::State &state) {
    const uint32_t ulSize = static_cast<uint32_t>(state.range(0));
    BP_RegistMsgProc(BENCH_CTRL, BP_PROC_TABLE_NORMAL, BENCH_COUNT_CODE, OnDatagram, 0);
    BenchPin(0);
    BP_MsgHdr stHdr = {};
    memcpy(stHdr.aucPrefix, BP_MSG_PREFIX, BP_MSG_PREFIX_LEN);
    stHdr.ulMsgCode = BENCH_COUNT_CODE;
    stHdr.ulModuleDstID = BENCH_CTRL;
    stHdr.usMsgLen = static_cast<uint16_t>(ulSize);
    std::string szData(ulSize, 'x');
    memcpy(szData.data(), &stHdr, sizeof(stHdr));
    BenchBatches(state, BENCH_TIMES, [&] { return Send(2048, szData.data(), ulSize); });
    BenchPin(-1);
}
BENCHMARK(ReceiveRuntime)->Name("receive/runtime")->Arg(46)->Arg(1024)->UseManualTime();
