// Reads the dump file that the driver writes: blocks, each with the image of one event buffer.
#pragma once

#include "client/event.h"
#include "client/record_decoder.h"

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <vector>

namespace zpregmon {

/// Yields the events of a dump file in the order in which the driver wrote them. Of a truncated or
/// damaged file it yields every event before the damage. Reads forwards only, so that the file may
/// be a pipe, and never takes more memory than the file has bytes.
class DumpFileReader {
public:
    /// `file` is open for reading at the first block and stays the caller's.
    explicit DumpFileReader(std::FILE* file) : file_(file) {}

    /// The next event; its text is valid until the call after. False at the end of the file and at
    /// the first damage (see Error).
    bool Next(Event& event);
    /// Offsets count from where the file was when it was handed over.
    const std::optional<DecodeError>& Error() const { return error_; }
    std::uint64_t BlocksRead() const { return blocks_; }

private:
    bool NextBlock();
    std::size_t ReadUpTo(void* target, std::size_t size);
    bool ReadImage(std::uint32_t length);
    bool FinishBlock();
    bool Fail(std::uint64_t offset, std::string what);

    std::FILE* file_;
    std::uint64_t position_ = 0;     ///< bytes taken from the file
    std::uint64_t imageOffset_ = 0;  ///< of the current block's image in the file
    std::uint64_t blocks_ = 0;
    std::vector<std::byte> image_;
    std::optional<RecordDecoder> decoder_;     ///< of `image_`
    std::optional<DecodeError> afterThisOne_;  ///< the block was cut short: reported at its end
    std::optional<DecodeError> error_;
};

}  // namespace zpregmon
