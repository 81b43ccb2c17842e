// The workloads that come with the program.
#pragma once

namespace zpregmon {

inline constexpr const char* kSample = "samples/wineboot.jsonl.gz";
inline constexpr const char* kImportSample = "samples/reg-import.jsonl.gz";
inline constexpr const char* kParallelSample = "samples/parallel.jsonl.gz";

}  // namespace zpregmon
