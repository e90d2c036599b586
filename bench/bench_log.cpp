// One log line, on tmpfs and on a disk. Opening a file and rotating are not part of a line.
#include <cstdio>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/bench_log.h"
#include "bench/bench_process.h"

static void LogFloor(benchmark::State &state) {
    const BenchLogDir stDir(state);
    FILE *pstFp = fopen("/var/log/floor", "w");
    struct stat stStat;
    BenchBatches(state, BENCH_LOG_TIMES, [&] {
        if (pstFp == nullptr || ftruncate(fileno(pstFp), 0) != 0) {
            return 0.0;
        }
        rewind(pstFp);
        return BenchTime(BENCH_LOG_TIMES, [&] {
            flock(fileno(pstFp), LOCK_EX); // another process of the same name may share the file
            fprintf(pstFp, "%s[%s]module %s msg code %u.\r\n", "11-23 05:40:00 123[I(0)][bp_module-157]",
                    __func__, "MW_CTRL", 4711U);
            fflush(pstFp);
            stat("/var/log/floor", &stStat);
            flock(fileno(pstFp), LOCK_UN);
        });
    });
    if (pstFp != nullptr) {
        fclose(pstFp);
    }
}
BENCHMARK(LogFloor)->Name("log/floor")->ArgName("disk")->Arg(0)->Arg(1)->UseManualTime();

static void LogRuntime(benchmark::State &state) {
    const BenchLogDir stDir(state);
    const auto pfnLine = [] {
        BP_WriteLog(BP_LOG_LEVEL_INFO, 0, BP_LOG_BP_MODULE_ID, "bp_module", 157, "[%s]module %s msg code %u.",
                    "LogFloor", "MW_CTRL", 4711U);
    };
    BenchBatches(state, BENCH_LOG_TIMES, [&] {
        unlink("/var/log/MW_MWARE00.log");
        pfnLine(); // opens it
        return BenchTime(BENCH_LOG_TIMES, pfnLine);
    });
    unlink("/var/log/MW_MWARE00.log");
}
BENCHMARK(LogRuntime)->Name("log/runtime")->ArgName("disk")->Arg(0)->Arg(1)->UseManualTime();
