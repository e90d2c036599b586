#include <nng/nng.h>
#include <nng/protocol/reqrep0/rep.h>
#include <nng/protocol/reqrep0/req.h>

#include "bench/exchange.h"

static constexpr char g_szAddress[] = "ipc:///tmp/ks-bench-nng";
static nng_socket g_stSocket;
static char g_acMsg[BENCH_MSG_SIZE] = "dbgcmd";

static void Serve() {
    if (nng_rep0_open(&g_stSocket) == 0 && nng_listen(g_stSocket, g_szAddress, nullptr, 0) == 0) {
        BenchReady();
    }
    for (;;) {
        size_t ulLen = sizeof(g_acMsg);
        nng_recv(g_stSocket, g_acMsg, &ulLen, 0);
        nng_send(g_stSocket, g_acMsg, ulLen, 0);
    }
}

static bool Connect() {
    return nng_req0_open(&g_stSocket) == 0 && nng_dial(g_stSocket, g_szAddress, nullptr, 0) == 0;
}

static bool Ask() {
    size_t ulLen = sizeof(g_acMsg);
    return nng_send(g_stSocket, g_acMsg, ulLen, 0) == 0 && nng_recv(g_stSocket, g_acMsg, &ulLen, 0) == 0;
}

static void Disconnect() {
    nng_close(g_stSocket);
}

const BenchExchange g_stNngExchange = {"nng", Serve, Connect, Ask, Disconnect};
