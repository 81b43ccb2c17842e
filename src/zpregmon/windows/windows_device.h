// The control device, opened on Windows.
#pragma once

#include "client/control_device.h"
#include "zpregmon/windows/handle.h"

#include <atomic>
#include <memory>
#include <vector>

namespace zpregmon {

/// Statuses are the driver's own: requests are made where the system does not translate them.
///
/// Buffer requests come back through a completion port, which is first in, first out. A request may
/// get there by way of the thread that made it, so it is because one thread makes them all, and
/// takes them from the port, that buffers are handed out in the order in which the driver completed
/// them.
class WindowsDevice final : public ControlDevice {
public:
    /// Throws SystemError.
    WindowsDevice();
    ~WindowsDevice() override;
    WindowsDevice(const WindowsDevice&) = delete;
    WindowsDevice& operator=(const WindowsDevice&) = delete;

    void AllocateBuffers(std::size_t count, std::size_t size) override;
    std::span<std::byte> Buffer(std::size_t slot) override;
    Status LendBuffer(std::size_t slot) override;
    std::vector<Completion> WaitForCompletions() override;
    bool DriverHasBuffers(std::size_t count) override;
    void CancelBuffers() override;
    Status Control(std::uint32_t code, std::span<const std::byte> input) override;
    Status SetDumpFile(const std::string& path) override;

private:
    struct Slot;

    Handle bufferFile_;   ///< for buffer requests, which stay out for long
    Handle controlFile_;  ///< for all others; synchronous
    Handle port_;         ///< of bufferFile_
    std::vector<std::unique_ptr<Slot>> slots_;
    std::size_t bufferSize_ = 0;
};

}  // namespace zpregmon
