// Through a bus daemon of its own.
#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/prctl.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "bench/exchange.h"

static constexpr char g_szAddress[] = "unix:path=/tmp/ks-bench-bus";
static constexpr char g_szName[] = "ks.bench";
static constexpr char g_szPath[] = "/ks/bench";
static sd_bus *g_pstBus;
static const std::string g_szMsg(BENCH_MSG_SIZE - 5, 'x'); // with its length and its end 46 bytes

static bool OpenBus() {
    return sd_bus_new(&g_pstBus) >= 0 && sd_bus_set_address(g_pstBus, g_szAddress) >= 0 &&
           sd_bus_set_bus_client(g_pstBus, 1) >= 0 && sd_bus_start(g_pstBus) >= 0;
}

static void StartDaemon() {
    unlink("/tmp/ks-bench-bus"); // the last server's
    if (fork() == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
               (std::string("--address=") + g_szAddress).c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
}

static int OnCall(sd_bus_message *pstCall, void *, sd_bus_error *) {
    const char *pcText = nullptr;
    sd_bus_message_read(pstCall, "s", &pcText);
    return sd_bus_reply_method_return(pstCall, "s", pcText);
}

static void Serve() {
    StartDaemon();
    for (int i = 0; i < 100 && !OpenBus(); i++) {
        g_pstBus = sd_bus_unref(g_pstBus);
        usleep(50000);
    }
    if (sd_bus_request_name(g_pstBus, g_szName, 0) < 0 ||
        sd_bus_add_object(g_pstBus, nullptr, g_szPath, OnCall, nullptr) < 0) {
        return;
    }
    BenchReady();
    for (;;) {
        if (sd_bus_process(g_pstBus, nullptr) == 0) {
            sd_bus_wait(g_pstBus, UINT64_MAX);
        }
    }
}

static bool Ask() {
    sd_bus_message *pstAnswer = nullptr;
    const int lRet = sd_bus_call_method(g_pstBus, g_szName, g_szPath, "ks.bench", "Ask", nullptr, &pstAnswer,
                                        "s", g_szMsg.c_str());
    sd_bus_message_unref(pstAnswer);
    return lRet >= 0;
}

static void Disconnect() {
    g_pstBus = sd_bus_unref(g_pstBus);
}

const BenchExchange g_stSdBusExchange = {"sd-bus", Serve, OpenBus, Ask, Disconnect};
