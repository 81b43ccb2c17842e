#include "zpregmon/replay/workload_file.h"

#include "zpregmon/replay/workload.h"

#include <fmt/format.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

namespace zpregmon {

namespace {

struct CloseGzFile {
    void operator()(gzFile file) const { gzclose_r(file); }
};
using GzFile = std::unique_ptr<gzFile_s, CloseGzFile>;

GzFile Open(const std::string& path) {
    errno = 0;
    GzFile file(path == "-" ? gzdopen(dup(STDIN_FILENO), "rb") : gzopen(path.c_str(), "rb"));
    if (!file) {
        throw WorkloadError(fmt::format("{}: cannot open: {}", path,
                                        errno != 0 ? std::strerror(errno) : "out of memory"));
    }
    return file;
}

[[noreturn]] void FailInside(const std::string& path, const FileText& text,
                             const std::string& problem) {
    const auto end = text.bytes.begin() + static_cast<std::ptrdiff_t>(text.size);
    const auto line = std::count(text.bytes.begin(), end, '\n') + 1;
    throw WorkloadError(fmt::format("{}:{}: {}", path, line, problem));
}

void CheckEnd(gzFile file, const std::string& path, const FileText& text) {
    int code = Z_OK;
    const char* message = gzerror(file, &code);
    if (code == Z_BUF_ERROR) {
        FailInside(path, text, "the file ends here, expected the rest of the compressed data");
    }
    if (code == Z_ERRNO) {
        FailInside(path, text, fmt::format("cannot read: {}", std::strerror(errno)));
    }
    if (code != Z_OK && code != Z_STREAM_END) {
        FailInside(path, text, fmt::format("damaged file, expected gzip data ({})", message));
    }
}

}  // namespace

FileText ReadWholeFile(const std::string& path, std::size_t padding) {
    constexpr unsigned kBlock = 1 << 16;
    const GzFile file = Open(path);
    gzbuffer(file.get(), kBlock);
    FileText text;
    for (;;) {
        if (text.bytes.size() < text.size + kBlock) {
            text.bytes.resize(std::max<std::size_t>(text.bytes.size() * 2, 4 * kBlock));
        }
        errno = 0;
        const int got = gzread(file.get(), text.bytes.data() + text.size, kBlock);
        if (got <= 0) {
            break;
        }
        text.size += static_cast<std::size_t>(got);
    }
    CheckEnd(file.get(), path, text);
    text.bytes.resize(text.size + padding);
    return text;
}

}  // namespace zpregmon
