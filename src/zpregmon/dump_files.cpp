#include "zpregmon/dump_files.h"

#include <fmt/format.h>

namespace zpregmon {

DumpFiles::DumpFiles(std::vector<std::string> paths) : paths_(std::move(paths)) {
    for (const std::string& path : paths_) {
        files_.push_back(OpenToRead(path));
    }
}

void DumpFiles::Read(const std::function<bool(const Event&)>& receive) {
    for (std::size_t i = 0; i < files_.size(); ++i) {
        DumpFileReader reader(files_[i].get());
        for (Event event; reader.Next(event);) {
            if (!receive(event)) {
                return;
            }
        }
        if (reader.Error()) {
            damages_.push_back({paths_[i], *reader.Error()});
        }
    }
}

bool DumpFiles::ReportDamage() const {
    for (const Damage& damage : damages_) {
        fmt::print(stderr, "zpregmon: {}: damaged at offset {}: {}\n",
                   NameOfFile(damage.path, "standard input"), damage.error.offset,
                   damage.error.what);
    }
    return damages_.empty();
}

}  // namespace zpregmon
