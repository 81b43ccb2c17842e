// Memory whose end a caller cannot read.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace platform {

/// A readable page with an unreadable one behind it.
class UnreadableMemory {
public:
    UnreadableMemory()
        : page_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))),
          memory_(mmap(nullptr, 2 * page_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1,
                       0)) {
        if (memory_ == MAP_FAILED || mprotect(End(), page_, PROT_NONE) != 0) {
            throw std::runtime_error("no memory for a test");
        }
    }
    ~UnreadableMemory() { munmap(memory_, 2 * page_); }
    UnreadableMemory(const UnreadableMemory&) = delete;
    UnreadableMemory& operator=(const UnreadableMemory&) = delete;

    /// Where `bytes` begin, of which the first `readable` lie before the unreadable page.
    void* Place(std::string_view bytes, std::size_t readable) {
        char* const start = End() - readable;
        std::memcpy(start, bytes.data(), readable);
        return start;
    }

private:
    char* End() { return static_cast<char*>(memory_) + page_; }

    std::size_t page_;
    void* memory_;
};

}  // namespace platform
