// Files that are closed when a test is done with them.
#pragma once

#include <cstdio>
#include <memory>

namespace zpregmon {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using ScratchFile = std::unique_ptr<std::FILE, CloseFile>;

}  // namespace zpregmon
