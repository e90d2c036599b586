// Entry of the benchmark of one process.
#include "bench/bench_process.h"
#include "bench/bench_support.h"

int main(int argc, char **argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || !BenchStartProcess()) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
