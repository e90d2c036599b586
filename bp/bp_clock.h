// Monotonic time in milliseconds: for everything that is waited for. Wall-clock time is only ever printed.
#ifndef BP_BP_CLOCK_H
#define BP_BP_CLOCK_H

#include <cstdint>
#include <ctime>

inline int64_t BP_NowMs() {
    struct timespec stNow;
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<int64_t>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1000000;
}

#endif
