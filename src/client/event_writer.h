// Where formatted events go: a file, written in large pieces.
#pragma once

#include "client/format.h"

#include <cstdio>
#include <memory>
#include <string>

namespace zpregmon {

/// How writing stands.
enum class OutputState {
    kOpen,
    kReaderGone,  ///< the other end of the pipe was closed: nobody wants more
    kFailed,      ///< see EventWriter::Problem
};

/// Formats events and writes them in pieces of 64 KiB. Once writing has failed, events are dropped.
class EventWriter {
public:
    /// `file` stays the caller's and is written to by nobody else.
    EventWriter(std::unique_ptr<EventFormat> format, std::FILE* file);

    void Write(const Event& event) {
        format_->Append(event, pending_);
        if (pending_.size() >= kPieceSize) {
            Flush();
        }
    }
    /// Writes what is pending.
    OutputState Flush();
    OutputState State() const { return state_; }
    /// The system's reason, after kFailed.
    const std::string& Problem() const { return problem_; }

private:
    static constexpr std::size_t kPieceSize = 64 * 1024;

    std::unique_ptr<EventFormat> format_;
    std::FILE* file_;
    TextBuffer pending_;
    OutputState state_ = OutputState::kOpen;
    std::string problem_;
};

}  // namespace zpregmon
