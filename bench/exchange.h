// One way to ask another process and be answered, with 46 bytes each way.
#ifndef BENCH_EXCHANGE_H
#define BENCH_EXCHANGE_H

#include <vector>

struct BenchExchange {
    const char *pcName;
    void (*pfnServe)();   // in the server's process; calls BenchReady and does not return
    bool (*pfnConnect)(); // in the client's, when the server is ready
    bool (*pfnAsk)();     // false when no answer came
    void (*pfnDisconnect)();
};

constexpr size_t BENCH_MSG_SIZE = 46;

// Tells the client that the server can be asked.
void BenchReady();

// Those that were built: the runtime and the one by hand first.
const std::vector<BenchExchange> &BenchExchanges();

extern const BenchExchange g_stRuntimeExchange;
extern const BenchExchange g_stHandExchange;
extern const BenchExchange g_stZeroMqExchange;
extern const BenchExchange g_stNngExchange;
extern const BenchExchange g_stNanomsgExchange;
extern const BenchExchange g_stSdBusExchange;

#endif
