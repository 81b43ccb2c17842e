#include "road.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    // While the main thread still has what the machine keeps for each thread.
    zpregflt_bench::Road::TakeDown();
    benchmark::Shutdown();
    return 0;
}
