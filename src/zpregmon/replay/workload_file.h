// The bytes of a workload file, uncompressed.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace zpregmon {

/// The file's text, with at least `padding` readable bytes behind it.
struct FileText {
    std::vector<char> bytes;
    std::size_t size = 0;  ///< of the text
};

/// Reads a file that is compressed with gzip or not; "-" is standard input. Throws WorkloadError;
/// a file that ends early or is damaged is an error that names the line.
FileText ReadWholeFile(const std::string& path, std::size_t padding);

}  // namespace zpregmon
