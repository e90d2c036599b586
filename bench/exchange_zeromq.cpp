#include <zmq.h>

#include "bench/exchange.h"

static constexpr char g_szAddress[] = "ipc:///tmp/ks-bench-zeromq";
static void *g_pSocket;
static char g_acMsg[BENCH_MSG_SIZE] = "dbgcmd";

static void Serve() {
    void *pSocket = zmq_socket(zmq_ctx_new(), ZMQ_REP);
    if (zmq_bind(pSocket, g_szAddress) == 0) {
        BenchReady();
    }
    for (;;) {
        zmq_recv(pSocket, g_acMsg, sizeof(g_acMsg), 0);
        zmq_send(pSocket, g_acMsg, sizeof(g_acMsg), 0);
    }
}

static bool Connect() {
    static void *pContext = zmq_ctx_new();
    g_pSocket = zmq_socket(pContext, ZMQ_REQ);
    return zmq_connect(g_pSocket, g_szAddress) == 0;
}

static bool Ask() {
    return zmq_send(g_pSocket, g_acMsg, sizeof(g_acMsg), 0) == sizeof(g_acMsg) &&
           zmq_recv(g_pSocket, g_acMsg, sizeof(g_acMsg), 0) == sizeof(g_acMsg);
}

static void Disconnect() {
    zmq_close(g_pSocket);
}

const BenchExchange g_stZeroMqExchange = {"ZeroMQ", Serve, Connect, Ask, Disconnect};
