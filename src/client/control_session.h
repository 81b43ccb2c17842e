// A client session: keeps buffers lent to the driver and hands out what comes back filled.
#pragma once

#include "client/control_device.h"
#include "client/exemption_request.h"
#include "records/record_format.h"

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>

namespace zpregmon {

/// A request that the driver or the system refused.
class ControlError : public std::runtime_error {
public:
    ControlError(const std::string& request, Status status);
    Status Code() const { return status_; }

private:
    Status status_;
};

/// Much more than a client needs that is never kept waiting: 8 MiB hold the events of several
/// hundred milliseconds of a machine that does nothing but registry operations. A record, with the
/// captured data in it, must fit into one buffer.
struct SessionOptions {
    std::size_t buffers = 32;
    std::size_t bufferSize = 256 * 1024;
};

struct SessionStatistics {
    std::uint64_t buffersDelivered = 0;  ///< with at least one reservation
    std::uint64_t reservations = 0;      ///< in them, as the driver counted
    std::size_t buffersLost = 0;         ///< slots that the driver would not take any more
    Status lastFailure = 0;              ///< why, for the last of these
};

/// Takes a delivered buffer's image. Runs on the session's thread; the image is the driver's again
/// when it returns. While it takes its time, the driver has one buffer less.
using BufferHandler = std::function<void(std::span<const std::byte> image)>;

/// Not for several threads at once, except WaitUntilLent. Settings may be changed at any time
/// between construction and Finish; they throw ControlError.
class ControlSession {
public:
    /// `device` outlives the session.
    explicit ControlSession(ControlDevice& device) : device_(device) {}
    /// Ends the session as Cancel does, if Finish was not called.
    ~ControlSession();
    ControlSession(const ControlSession&) = delete;
    ControlSession& operator=(const ControlSession&) = delete;

    void SetLoggedOperations(zpregflt::OperationMask operations);
    void SetCaptureMaxSize(std::uint32_t bytes);
    void SetReportOriginal(bool on);
    void SetDumpFile(const std::string& path);
    void AddExemptions(std::span<const Exemption> exemptions);
    void RemoveExemptions(std::span<const Exemption> exemptions);
    void RemoveAllExemptions();

    /// Lends the buffers; from now on `handler` gets every delivered one, in the order in which
    /// they came back, and each is lent again at once. Throws ControlError when not one buffer is
    /// taken; where a request is refused only after it was sent, Flush does so instead.
    void Start(const SessionOptions& options, BufferHandler handler);
    /// Has the driver deliver the current buffer now. Throws ControlError also when it has none and
    /// will not have any.
    void Flush();
    /// Blocks while the driver has fewer than `buffers` buffers: for a source of events that can
    /// wait for its client. Returns false when the driver will not have that many any more.
    bool WaitUntilLent(std::size_t buffers);
    /// Gets every record that is in a buffer, hands it out, and takes the buffers back. Call it
    /// when no more operations are made: what is recorded meanwhile may be lost.
    SessionStatistics Finish();

private:
    void LendAll();
    void Run();
    bool BuffersAreOut();
    void Handle(const Completion& completion);
    void StopLending();
    void Lend(std::size_t slot);  ///< lock_ held, as for Retire
    void Retire(Status status);
    void Control(const char* request, std::uint32_t code, std::span<const std::byte> input = {});
    void Set(const char* request, std::uint32_t code, std::uint32_t number);

    ControlDevice& device_;
    SessionOptions options_;
    BufferHandler handler_;
    std::thread thread_;
    SessionStatistics statistics_;  ///< the thread's, while it runs

    std::mutex lock_;
    std::condition_variable lentChanged_;
    // Guarded by lock_:
    std::size_t lent_ = 0;      ///< buffers that went out and were not noticed to have come back
    std::size_t returned_ = 0;  ///< buffers that came back and have not been lent again
    bool lending_ = false;      ///< buffers that come back are lent again
};

}  // namespace zpregmon
