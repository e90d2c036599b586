#include <nanomsg/nn.h>
#include <nanomsg/reqrep.h>

#include "bench/exchange.h"

static constexpr char g_szAddress[] = "ipc:///tmp/ks-bench-nanomsg";
static int g_lSocket;
static char g_acMsg[BENCH_MSG_SIZE] = "dbgcmd";

static void Serve() {
    const int lSocket = nn_socket(AF_SP, NN_REP);
    if (nn_bind(lSocket, g_szAddress) >= 0) {
        BenchReady();
    }
    for (;;) {
        nn_recv(lSocket, g_acMsg, sizeof(g_acMsg), 0);
        nn_send(lSocket, g_acMsg, sizeof(g_acMsg), 0);
    }
}

static bool Connect() {
    g_lSocket = nn_socket(AF_SP, NN_REQ);
    return nn_connect(g_lSocket, g_szAddress) >= 0;
}

static bool Ask() {
    return nn_send(g_lSocket, g_acMsg, sizeof(g_acMsg), 0) == sizeof(g_acMsg) &&
           nn_recv(g_lSocket, g_acMsg, sizeof(g_acMsg), 0) == sizeof(g_acMsg);
}

static void Disconnect() {
    nn_close(g_lSocket);
}

const BenchExchange g_stNanomsgExchange = {"nanomsg", Serve, Connect, Ask, Disconnect};
