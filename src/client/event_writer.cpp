#include "client/event_writer.h"

#include <cerrno>
#include <cstring>

namespace zpregmon {

EventWriter::EventWriter(std::unique_ptr<EventFormat> format, std::FILE* file)
    : format_(std::move(format)), file_(file) {
    format_->AppendHeading(pending_);
}

OutputState EventWriter::Flush() {
    if (state_ == OutputState::kOpen) {
        errno = 0;
        const std::size_t written = std::fwrite(pending_.data(), 1, pending_.size(), file_);
        if (written < pending_.size() || std::fflush(file_) != 0) {
            state_ = errno == EPIPE ? OutputState::kReaderGone : OutputState::kFailed;
            problem_ = std::strerror(errno);
        }
    }
    pending_.clear();
    return state_;
}

}  // namespace zpregmon
