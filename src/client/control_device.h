// The driver's control device as the client library needs it, whatever system carries the requests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace zpregmon {

/// A status of the system: negative values are failures.
using Status = std::int32_t;

/// The driver does not serve the process: its image is not one that the support library trusts.
inline constexpr Status kStatusUnsuccessful = static_cast<Status>(0xC0000001);
/// The driver has a dump file, or an equal exemption, already.
inline constexpr Status kStatusObjectNameCollision = static_cast<Status>(0xC0000035);

/// A buffer request that has come back.
struct Completion {
    std::size_t slot;
    Status status;
    std::uint64_t reservations;  ///< made in the buffer; 0: it holds nothing
};

/// One open control device. Requests may be made on several threads at once, but buffers are lent
/// and waited for on one thread: a system may hand back requests of different threads in another
/// order than the driver completed them in. Each slot is used by one request at a time. Destruction
/// closes the device; no buffer may be lent then.
class ControlDevice {
public:
    virtual ~ControlDevice() = default;

    /// Makes the memory of every slot, zeroed and aligned to pages. Called once.
    virtual void AllocateBuffers(std::size_t count, std::size_t size) = 0;
    virtual std::span<std::byte> Buffer(std::size_t slot) = 0;

    /// Lends the slot's buffer to the driver. After a failure it is not lent; after success its
    /// memory is the driver's until the request has come back from WaitForCompletions.
    virtual Status LendBuffer(std::size_t slot) = 0;
    /// Waits until a request has come back, and returns all that have, in the order in which they
    /// did so. At least one must be out.
    virtual std::vector<Completion> WaitForCompletions() = 0;
    /// Whether at least `count` buffers are lent and have not come back. Any thread, but not at the
    /// same time as LendBuffer.
    virtual bool DriverHasBuffers(std::size_t count) = 0;
    /// Takes back every buffer that is lent: the requests come back with a failure.
    virtual void CancelBuffers() = 0;

    /// Any other control request (driver/control_codes.h), carried out before this returns.
    virtual Status Control(std::uint32_t code, std::span<const std::byte> input) = 0;
    /// Opens or makes the file and gives it to the driver as its dump file. Throws where the system
    /// says more than a status about a file that cannot be opened.
    virtual Status SetDumpFile(const std::string& path) = 0;
};

}  // namespace zpregmon
