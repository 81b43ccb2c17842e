#include "road.h"

#include <benchmark/benchmark.h>

#include <thread>

int main(int argc, char** argv) {
    // A process that has never had a second thread takes a std::mutex without locked instructions:
    // no recorder is used there, and the baseline would be half of what it is anywhere else.
    std::thread([] {}).join();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    // While the main thread still has what the machine keeps for each thread.
    zpregflt_bench::Road::TakeDown();
    benchmark::Shutdown();
    return 0;
}
