// Entry of the benchmark of one process, in namespaces of its own.
#include "bench/bench_process.h"
#include "bench/bench_support.h"
#include "tests/support/sandbox.h"

int main(int argc, char **argv) {
    if (!TestEnterSandbox(argv)) {
        fprintf(stderr, "private namespaces are not permitted here\n");
        return 2;
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv) || !BenchStartProcess()) {
        return 2;
    }
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
