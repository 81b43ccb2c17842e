#include "client/dump_file.h"

#include "channel/buffer_format.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zpregmon {

using zpregflt::BufferHeader;
using zpregflt::DumpBlockHeader;

bool DumpFileReader::Next(Event& event) {
    while (!error_) {
        if (decoder_) {
            if (decoder_->Next(event)) {
                return true;
            }
            if (!FinishBlock()) {
                return false;
            }
        }
        if (!NextBlock()) {
            return false;
        }
    }
    return false;
}

bool DumpFileReader::NextBlock() {
    const std::uint64_t start = position_;
    DumpBlockHeader header;
    const std::size_t got = ReadUpTo(&header, sizeof(header));
    if (error_ || got == 0) {
        return false;
    }
    if (got < sizeof(header)) {
        return Fail(start, fmt::format("the file ends after {} bytes of a block header of {}", got,
                                       sizeof(header)));
    }
    if (header.Magic != zpregflt::kDumpBlockMagic) {
        return Fail(start, fmt::format("found {:#010x}, expected a block that starts with REGF",
                                       header.Magic));
    }
    if (header.Length < sizeof(BufferHeader)) {
        return Fail(start + offsetof(DumpBlockHeader, Length),
                    fmt::format("a block of {} bytes, expected a buffer image of at least {}",
                                header.Length, sizeof(BufferHeader)));
    }
    imageOffset_ = position_;
    return ReadImage(header.Length);
}

bool DumpFileReader::ReadImage(std::uint32_t length) {
    constexpr std::size_t kStep = 1 << 20;
    std::size_t have = 0;
    while (have < length) {
        const std::size_t wanted = std::min<std::size_t>(kStep, length - have);
        image_.resize(have + wanted);
        const std::size_t got = ReadUpTo(image_.data() + have, wanted);
        if (error_) {
            return false;
        }
        have += got;
        if (got < wanted) {
            afterThisOne_ =
                DecodeError{position_, fmt::format("the file ends after {} bytes of a block that "
                                                   "is said to have {}",
                                                   have, length)};
            break;
        }
    }
    image_.resize(have);
    ++blocks_;
    decoder_.emplace(image_);
    return true;
}

/// True when the block was sound and another one may follow.
bool DumpFileReader::FinishBlock() {
    // What the decoder stumbles over in a block that was cut short is the cut.
    if (afterThisOne_) {
        error_ = std::move(afterThisOne_);
    } else if (decoder_->Error()) {
        error_ = DecodeError{imageOffset_ + decoder_->Error()->offset, decoder_->Error()->what};
    }
    decoder_.reset();
    return !error_;
}

std::size_t DumpFileReader::ReadUpTo(void* target, std::size_t size) {
    errno = 0;
    const std::size_t got = std::fread(target, 1, size, file_);
    position_ += got;
    if (got < size && std::ferror(file_) != 0) {
        Fail(position_, fmt::format("cannot read: {}", std::strerror(errno)));
    }
    return got;
}

bool DumpFileReader::Fail(std::uint64_t offset, std::string what) {
    error_ = DecodeError{offset, std::move(what)};
    return false;
}

}  // namespace zpregmon
