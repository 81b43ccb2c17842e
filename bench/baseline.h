// The unit of every figure: what any recorder must at least do for one event.
//
// A std::mutex held around filling a 40-byte header field by field and copying a 64-byte payload
// and a 40-byte UTF-16 string into a ring of 16 buffers of 64 KiB; the time is one load from shared
// memory.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>

namespace zpregflt_bench {

class Baseline {
public:
    static constexpr std::size_t kBufferSize = 0x10000;
    static constexpr std::size_t kBufferCount = 16;
    static constexpr std::size_t kPayloadSize = 64;
    static constexpr std::size_t kNameSize = 40;

    void Record(std::uint32_t type, std::uint64_t process, const unsigned char* payload,
                const unsigned char* name) {
        const std::scoped_lock lock(mutex_);
        if (fill_ + kRecordSize > kBufferSize) {
            current_ = (current_ + 1) % kBufferCount;
            fill_ = 0;
        }
        unsigned char* const record = memory_.get() + current_ * kBufferSize + fill_;
        fill_ += kRecordSize;
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        auto* const header = reinterpret_cast<Header*>(record);
        header->type = type;
        header->next = 0;
        header->processId = static_cast<std::uint32_t>(process);
        header->processKey = process;
        header->time = static_cast<std::uint64_t>(now.QuadPart);
        header->operations = type;
        header->name = sizeof(Header) + kPayloadSize;
        std::memcpy(record + sizeof(Header), payload, kPayloadSize);
        std::memcpy(record + sizeof(Header) + kPayloadSize, name, kNameSize);
    }

private:
    struct Header {
        std::uint32_t type;
        std::int32_t next;
        std::uint32_t processId;
        std::uint32_t reserved;
        std::uint64_t processKey;
        std::uint64_t time;
        std::uint32_t operations;
        std::uint32_t name;
    };
    static_assert(sizeof(Header) == 40);
    static constexpr std::size_t kRecordSize = sizeof(Header) + kPayloadSize + kNameSize;

    std::mutex mutex_;
    std::unique_ptr<unsigned char[]> memory_ =
        std::make_unique<unsigned char[]>(kBufferCount * kBufferSize);
    std::size_t current_ = 0;
    std::size_t fill_ = 0;
};

}  // namespace zpregflt_bench
