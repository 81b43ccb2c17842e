#include "zpregmon/replay/hive_files.h"

#include "platform/kernel/io.h"
#include "platform/kernel/text.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace zpregmon {

namespace {

std::filesystem::path MakeDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "zpregmon-hives-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) {
        throw std::filesystem::filesystem_error("cannot make a directory for hives", name,
                                                {errno, std::generic_category()});
    }
    return name;
}

}  // namespace

HiveFiles::~HiveFiles() {
    if (!directory_.empty()) {
        std::error_code ignored;  // what stays behind is in the directory for temporary files
        std::filesystem::remove_all(directory_, ignored);
    }
}

std::u16string HiveFiles::NameOf(std::u16string_view recorded) {
    const std::lock_guard guard(lock_);
    if (directory_.empty()) {
        directory_ = MakeDirectory();
    }
    const std::string name = fmt::format("{:016x}", platform::HashIgnoringCase(recorded));
    return platform::HostFileName((directory_ / name).string());
}

}  // namespace zpregmon
