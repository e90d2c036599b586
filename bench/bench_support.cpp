#include "bench/bench_support.h"

#include <ctime>
#include <filesystem>
#include <sched.h>

void BenchPin(int lCpu) {
    cpu_set_t stSet;
    CPU_ZERO(&stSet);
    for (int i = 0; i < CPU_SETSIZE; i++) {
        if (lCpu < 0 || i == lCpu) {
            CPU_SET(static_cast<size_t>(i), &stSet);
        }
    }
    for (const auto &stTask : std::filesystem::directory_iterator("/proc/self/task")) {
        sched_setaffinity(atoi(stTask.path().filename().c_str()), sizeof(stSet), &stSet);
    }
}

double BenchNow() {
    struct timespec stNow;
    clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<double>(stNow.tv_sec) + static_cast<double>(stNow.tv_nsec) / 1e9;
}
