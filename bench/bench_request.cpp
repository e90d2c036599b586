// A request to another process and its answer: the runtime at one of its paces, the cheapest exchange of the
// same shape written by hand, and what a team would pick instead. Everything runs on one processor.
//
// bench_request default|prompt [BENCHMARK ARGUMENT ...]; bench_request --serve PACE NAME is a server.
#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <csignal>
#include <cstring>
#include <new>
#include <random>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/bench_support.h"
#include "bench/exchange.h"
#include "bp/bp.h"

static constexpr uint32_t BENCH_FLOOD_RATE = 50000; // datagrams a second

static bool g_bPrompt;

void BenchReady() {
    if (write(STDOUT_FILENO, "", 1) != 1) {
        _exit(1);
    }
}

static pid_t Fork() {
    const pid_t lPid = fork();
    if (lPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
    }
    return lPid;
}

static void End(pid_t lPid) {
    kill(lPid, SIGKILL);
    waitpid(lPid, nullptr, 0);
}

// The server of the exchange; its process ID, or -1 when it is not ready.
static pid_t StartServer(const BenchExchange &stExchange) {
    int alPipe[2];
    if (pipe(alPipe) != 0) {
        return -1;
    }
    const pid_t lPid = Fork();
    if (lPid == 0) {
        dup2(alPipe[1], STDOUT_FILENO);
        execl("/proc/self/exe", "bench_request", "--serve", g_bPrompt ? "prompt" : "default", stExchange.pcName,
              static_cast<char *>(nullptr));
        _exit(127);
    }
    close(alPipe[1]);
    char cReady = 0;
    const bool bReady = read(alPipe[0], &cReady, 1) == 1;
    close(alPipe[0]);
    if (!bReady) {
        End(lPid);
    }
    return bReady ? lPid : -1;
}

// Reports the median and the 99th percentile of the exchanges, in microseconds.
static void Report(benchmark::State &state, std::vector<double> *padTook) {
    std::sort(padTook->begin(), padTook->end());
    if (!padTook->empty()) {
        state.counters["p50_us"] = (*padTook)[padTook->size() / 2] * 1e6;
        state.counters["p99_us"] = (*padTook)[padTook->size() * 99 / 100] * 1e6;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

// Asks again and again, after a pause of up to dPause seconds each time. A datagram may be lost where the
// kernel's queue is full, which counts as the time until the requester gives up.
static void AskOften(benchmark::State &state, const BenchExchange &stExchange, double dPause, bool bMayLose) {
    std::minstd_rand stRandom(1);
    std::uniform_real_distribution<double> stPause(0, dPause);
    std::vector<double> adTook;
    for (auto _ : state) {
        if (dPause > 0) {
            usleep(static_cast<useconds_t>(stPause(stRandom) * 1e6));
        }
        const double dStart = BenchNow();
        const bool bAnswered = stExchange.pfnAsk();
        adTook.push_back(BenchNow() - dStart);
        state.SetIterationTime(adTook.back());
        if (!bAnswered && !bMayLose) {
            state.SkipWithError("no answer");
            break;
        }
    }
    Report(state, &adTook);
}

static void Exchange(benchmark::State &state, const BenchExchange &stExchange, double dPause, bool bMayLose) {
    BenchPin(0);
    const pid_t lServer = StartServer(stExchange);
    if (lServer < 0 || !stExchange.pfnConnect()) {
        state.SkipWithError("no server");
    } else {
        stExchange.pfnAsk();
        AskOften(state, stExchange, dPause, bMayLose);
        stExchange.pfnDisconnect();
    }
    if (lServer >= 0) {
        End(lServer);
    }
    BenchPin(-1);
}

// Datagrams for the runtime's server, in bursts of a millisecond's worth, for as long as it lives. Counts them.
[[noreturn]] static void Flood(std::atomic<uint64_t> *pulSent) {
    const int lSocket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in stAddr = {};
    stAddr.sin_family = AF_INET;
    stAddr.sin_port = htons(2049);
    stAddr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    BP_MsgHdr stHdr = {};
    memcpy(stHdr.aucPrefix, BP_MSG_PREFIX, BP_MSG_PREFIX_LEN);
    stHdr.ulMsgCode = 1;
    stHdr.ulModuleDstID = BP_MODULE_ID_IWARE_CMD;
    stHdr.usMsgLen = BENCH_MSG_SIZE;
    char acMsg[BENCH_MSG_SIZE] = {};
    memcpy(acMsg, &stHdr, sizeof(stHdr));
    const double dStart = BenchNow();
    for (;;) {
        const uint64_t ulDue = static_cast<uint64_t>((BenchNow() - dStart) * BENCH_FLOOD_RATE);
        while (*pulSent < ulDue && sendto(lSocket, acMsg, sizeof(acMsg), 0,
                                          reinterpret_cast<struct sockaddr *>(&stAddr), sizeof(stAddr)) > 0) {
            ++*pulSent;
        }
        usleep(1000);
    }
}

static void UnderLoad(benchmark::State &state) {
    BenchPin(0);
    void *pShared =
        mmap(nullptr, sizeof(std::atomic<uint64_t>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto *pulSent = new (pShared) std::atomic<uint64_t>(0);
    const double dStart = BenchNow();
    const pid_t lFlood = Fork();
    if (lFlood == 0) {
        Flood(pulSent);
    }
    Exchange(state, g_stRuntimeExchange, 0.001, true);
    End(lFlood);
    state.counters["datagrams_per_s"] = static_cast<double>(*pulSent) / (BenchNow() - dStart);
    munmap(pShared, sizeof(*pulSent));
}

// The waits that the default pace imposes on a request: half a pass until it leaves, a pass until its answer
// does, half a step until that is seen.
static void DefaultWaits(benchmark::State &state) {
    const int lEpollFd = epoll_create1(EPOLL_CLOEXEC);
    std::vector<double> adTook;
    for (auto _ : state) {
        const double dStart = BenchNow();
        for (const int lWaitMs :
             {BP_MAIN_EPOLL_TIMEOUT / 2, BP_MAIN_EPOLL_TIMEOUT, static_cast<int>(BP_SYNC_POLL_MS) / 2}) {
            struct epoll_event stEvent;
            epoll_wait(lEpollFd, &stEvent, 1, lWaitMs);
        }
        adTook.push_back(BenchNow() - dStart);
        state.SetIterationTime(adTook.back());
    }
    close(lEpollFd);
    Report(state, &adTook);
}

static int ServeFor(const char *pcName) {
    for (const BenchExchange &stExchange : BenchExchanges()) {
        if (strcmp(stExchange.pcName, pcName) == 0) {
            stExchange.pfnServe();
        }
    }
    return 1;
}

const std::vector<BenchExchange> &BenchExchanges() {
    static const std::vector<BenchExchange> astExchange = {
        g_stRuntimeExchange, g_stHandExchange,
#ifdef KS_BENCH_ZEROMQ
        g_stZeroMqExchange,
#endif
#ifdef KS_BENCH_NNG
        g_stNngExchange,
#endif
#ifdef KS_BENCH_NANOMSG
        g_stNanomsgExchange,
#endif
#ifdef KS_BENCH_SDBUS
        g_stSdBusExchange,
#endif
    };
    return astExchange;
}

static void RegisterPrompt() {
    for (const BenchExchange &stExchange : BenchExchanges()) {
        benchmark::RegisterBenchmark((std::string("prompt request/") + stExchange.pcName).c_str(), Exchange,
                                     stExchange, 0.0, false)
            ->UseManualTime();
    }
    benchmark::RegisterBenchmark("request under load/runtime", UnderLoad)->UseManualTime()->Iterations(2000);
}

// Each of these takes 35 ms, in which nothing is computed: fixed numbers instead of a minimum time.
static void RegisterDefault() {
    benchmark::RegisterBenchmark("request/floor", DefaultWaits)->UseManualTime()->Iterations(60);
    benchmark::RegisterBenchmark("request/runtime", Exchange, g_stRuntimeExchange, 0.04, false)
        ->UseManualTime()
        ->Iterations(60);
}

int main(int argc, char **argv) {
    const bool bServes = argc == 4 && strcmp(argv[1], "--serve") == 0;
    const char *pcPace = bServes ? argv[2] : argc > 1 ? argv[1] : "";
    g_bPrompt = strcmp(pcPace, "prompt") == 0;
    BP_SetPromptDelivery(g_bPrompt ? 1 : 0);
    if (bServes) {
        return ServeFor(argv[3]);
    }
    if (!g_bPrompt && strcmp(pcPace, "default") != 0) {
        fprintf(stderr, "usage: bench_request default|prompt [BENCHMARK ARGUMENT ...]\n");
        return 2;
    }
    argv[1] = argv[0];
    int lArgs = argc - 1;
    benchmark::Initialize(&lArgs, argv + 1);
    g_bPrompt ? RegisterPrompt() : RegisterDefault();
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
