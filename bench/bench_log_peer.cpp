// The same line through a rotating sink that flushes each line.
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include "bench/bench_log.h"
#include "bench/bench_support.h"

static void LogSpdlog(benchmark::State &state) {
    const BenchLogDir stDir(state);
    BenchBatches(state, BENCH_LOG_TIMES, [&] {
        unlink("/var/log/spdlog.log");
        const auto pstLogger = spdlog::rotating_logger_mt("bench", "/var/log/spdlog.log", 131072, 1);
        pstLogger->set_pattern("%m-%d %H:%M:%S %e[%l(0)][%s-%#]%v");
        pstLogger->flush_on(spdlog::level::trace);
        const double dTook = BenchTime(BENCH_LOG_TIMES, [&] {
            SPDLOG_LOGGER_INFO(pstLogger, "[{}]module {} msg code {}.", "LogFloor", "MW_CTRL", 4711U);
        });
        spdlog::drop("bench");
        return dTook;
    });
}
BENCHMARK(LogSpdlog)->Name("log/spdlog")->ArgName("disk")->Arg(0)->Arg(1)->UseManualTime();
