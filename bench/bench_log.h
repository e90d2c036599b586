// Where the log is measured: /var/log on tmpfs, or on a disk.
#ifndef BENCH_BENCH_LOG_H
#define BENCH_BENCH_LOG_H

#include <cstdlib>
#include <sys/mount.h>

#include "bench/bench_support.h"

constexpr uint32_t BENCH_LOG_TIMES = 1000; // lines, few enough for one file

// /var/log on the disk for as long as it lives, where a directory for that was named.
class BenchLogDir {
public:
    explicit BenchLogDir(benchmark::State &state) : bMounted_(state.range(0) != 0) {
        const char *pcDisk = getenv("KS_BENCH_DISK");
        if (bMounted_ && (pcDisk == nullptr || mount(pcDisk, "/var/log", nullptr, MS_BIND, nullptr) != 0)) {
            bMounted_ = false;
            state.SkipWithError("KS_BENCH_DISK names no directory on a disk");
        }
    }
    ~BenchLogDir() {
        if (bMounted_) {
            umount2("/var/log", MNT_DETACH);
        }
    }

private:
    bool bMounted_;
};

#endif
