// The dump files that a command reads, one after the other.
#pragma once

#include "client/dump_file.h"
#include "zpregmon/files.h"

#include <functional>
#include <string>
#include <vector>

namespace zpregmon {

class DumpFiles {
public:
    /// Opens them all, so that a missing one is found before anything is printed. Throws
    /// UsageError.
    explicit DumpFiles(std::vector<std::string> paths);

    /// Hands out every event, whose text is valid during the call, until `receive` returns false.
    void Read(const std::function<bool(const Event&)>& receive);
    /// Says on standard error which of them are damaged and where. True when none is.
    bool ReportDamage() const;

private:
    struct Damage {
        std::string path;
        DecodeError error;
    };

    std::vector<std::string> paths_;
    std::vector<File> files_;
    std::vector<Damage> damages_;
};

}  // namespace zpregmon
