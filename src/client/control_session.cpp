#include "client/control_session.h"

#include "driver/control_codes.h"

#include <fmt/format.h>

#include <cstring>

namespace zpregmon {

ControlError::ControlError(const std::string& request, Status status)
    : std::runtime_error(fmt::format(
          "{}: status {:08x}{}", request, static_cast<std::uint32_t>(status),
          status == kStatusUnsuccessful ? ": this program is not among the trusted images" : "")),
      status_(status) {}

ControlSession::~ControlSession() {
    if (thread_.joinable()) {
        StopLending();
        device_.CancelBuffers();
        thread_.join();
    }
}

void ControlSession::Control(const char* request, std::uint32_t code,
                             std::span<const std::byte> input) {
    if (const Status status = device_.Control(code, input); status < 0) {
        throw ControlError(request, status);
    }
}

void ControlSession::Set(const char* request, std::uint32_t code, std::uint32_t number) {
    Control(request, code, std::as_bytes(std::span(&number, 1)));
}

void ControlSession::SetLoggedOperations(zpregflt::OperationMask operations) {
    Set("cannot set the operations to record", zpregflt::IOCTL_ZPRF_SET_LOGGED_OPERATIONS,
        operations);
}

void ControlSession::SetCaptureMaxSize(std::uint32_t bytes) {
    Set("cannot set the capture size", zpregflt::IOCTL_ZPRF_SET_CAPTURE_MAX_SIZE, bytes);
}

void ControlSession::SetReportOriginal(bool on) {
    Set("cannot set the reporting of original data", zpregflt::IOCTL_ZPRF_SET_REPORT_ORIGINAL,
        on ? 1 : 0);
}

void ControlSession::SetDumpFile(const std::string& path) {
    const Status status = device_.SetDumpFile(path);
    if (status == kStatusObjectNameCollision) {
        throw ControlError(
            fmt::format("cannot use '{}' as the dump file: the driver has one until it is unloaded",
                        path),
            status);
    }
    if (status < 0) {
        throw ControlError(fmt::format("cannot use '{}' as the dump file", path), status);
    }
}

void ControlSession::AddExemptions(std::span<const Exemption> exemptions) {
    Control("cannot add exemptions", zpregflt::IOCTL_ZPRF_EXEMPT_ADD,
            BuildExemptionRequest(exemptions));
}

void ControlSession::RemoveExemptions(std::span<const Exemption> exemptions) {
    Control("cannot remove exemptions", zpregflt::IOCTL_ZPRF_EXEMPT_REMOVE,
            BuildExemptionRequest(exemptions));
}

void ControlSession::RemoveAllExemptions() {
    Control("cannot remove the exemptions", zpregflt::IOCTL_ZPRF_EXEMPT_REMOVE_ALL);
}

void ControlSession::Start(const SessionOptions& options, BufferHandler handler) {
    options_ = options;
    handler_ = std::move(handler);
    device_.AllocateBuffers(options.buffers, options.bufferSize);
    thread_ = std::thread([this] {
        LendAll();
        Run();
    });
    std::unique_lock guard(lock_);
    lentChanged_.wait(guard, [this] { return lending_; });
    if (lent_ + returned_ == 0) {
        guard.unlock();
        thread_.join();
        throw ControlError("the driver takes no buffer", statistics_.lastFailure);
    }
}

void ControlSession::LendAll() {
    const std::lock_guard guard(lock_);
    lending_ = true;
    returned_ = options_.buffers;
    for (std::size_t slot = 0; slot < options_.buffers; ++slot) {
        Lend(slot);
    }
    lentChanged_.notify_all();
}

void ControlSession::Flush() {
    {
        const std::lock_guard guard(lock_);
        if (lending_ && lent_ + returned_ == 0) {
            throw ControlError("the driver takes no buffer", statistics_.lastFailure);
        }
    }
    Control("cannot flush", zpregflt::IOCTL_ZPRF_FLUSH);
}

bool ControlSession::WaitUntilLent(std::size_t buffers) {
    std::unique_lock guard(lock_);
    // The device knows better than lent_: a buffer may be filled while the session's thread has not
    // yet had the time to notice. It will, and then lends the buffer again and signals.
    while (!device_.DriverHasBuffers(buffers)) {
        if (!lending_ || lent_ + returned_ < buffers) {
            return false;
        }
        lentChanged_.wait(guard);
    }
    return true;
}

SessionStatistics ControlSession::Finish() {
    StopLending();
    // Each flush delivers the current buffer. One is not enough: behind a current buffer that was
    // empty, but too small for a record, others may hold records.
    for (std::size_t i = 0; i < options_.buffers; ++i) {
        Flush();
    }
    device_.CancelBuffers();
    thread_.join();
    return statistics_;
}

void ControlSession::StopLending() {
    const std::lock_guard guard(lock_);
    lending_ = false;
    lentChanged_.notify_all();
}

void ControlSession::Run() {
    while (BuffersAreOut()) {
        const std::vector<Completion> completions = device_.WaitForCompletions();
        {
            const std::lock_guard guard(lock_);
            lent_ -= completions.size();
            returned_ += completions.size();
        }
        for (const Completion& completion : completions) {
            Handle(completion);
        }
    }
}

bool ControlSession::BuffersAreOut() {
    const std::lock_guard guard(lock_);
    return lent_ != 0;
}

void ControlSession::Handle(const Completion& completion) {
    if (completion.status >= 0 && completion.reservations != 0) {
        statistics_.buffersDelivered += 1;
        statistics_.reservations += completion.reservations;
        handler_(device_.Buffer(completion.slot));
    }
    const std::lock_guard guard(lock_);
    if (!lending_) {
        returned_ -= 1;
    } else if (completion.status < 0) {
        Retire(completion.status);
    } else {
        // Under the lock: once lending has been stopped, no buffer goes out behind CancelBuffers.
        Lend(completion.slot);
    }
    lentChanged_.notify_all();
}

void ControlSession::Lend(std::size_t slot) {
    if (const Status status = device_.LendBuffer(slot); status < 0) {
        Retire(status);
        return;
    }
    returned_ -= 1;
    lent_ += 1;
}

void ControlSession::Retire(Status status) {
    returned_ -= 1;
    statistics_.buffersLost += 1;
    statistics_.lastFailure = status;
}

}  // namespace zpregmon
