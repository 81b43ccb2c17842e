// The control device, opened by a process of the running machine.
#pragma once

#include "client/control_device.h"
#include "platform/machine.h"

#include <atomic>
#include <memory>
#include <vector>

namespace zpregmon {

/// Carries the requests of a client session through the machine's system calls, on whatever host
/// thread makes them, as a thread of the client process.
class PlatformDevice final : public ControlDevice {
public:
    /// The most buffers: one call waits for all of them.
    static constexpr std::size_t kMostBuffers = 64;

    /// Opens the device in `process`, which the support library must trust. Throws ControlError.
    explicit PlatformDevice(platform::Process& process);
    ~PlatformDevice() override;
    PlatformDevice(const PlatformDevice&) = delete;
    PlatformDevice& operator=(const PlatformDevice&) = delete;

    void AllocateBuffers(std::size_t count, std::size_t size) override;
    std::span<std::byte> Buffer(std::size_t slot) override;
    Status LendBuffer(std::size_t slot) override;
    std::vector<Completion> WaitForCompletions() override;
    bool DriverHasBuffers(std::size_t count) override;
    void CancelBuffers() override;
    Status Control(std::uint32_t code, std::span<const std::byte> input) override;
    Status SetDumpFile(const std::string& path) override;

private:
    struct Slot {
        std::byte* memory = nullptr;
        HANDLE event = nullptr;  ///< set when the request has come back
        IO_STATUS_BLOCK ioStatus = {};
        std::atomic<bool> lent{false};
    };

    Status Open(HANDLE& file, ACCESS_MASK access, std::u16string_view name, ULONG disposition,
                ULONG options);
    static void Wait(std::vector<HANDLE>& anyOf);
    static bool HasComeBack(const Slot& slot);
    std::vector<std::size_t> FindComeBack(const std::vector<std::size_t>& lent);
    Completion Collect(std::size_t slot);
    void SortByTime(std::vector<Completion>& completions);

    platform::ObjectRef<platform::Process> process_;
    HANDLE bufferFile_ = nullptr;   ///< for buffer requests, which stay out for long
    HANDLE controlFile_ = nullptr;  ///< for all others; synchronous
    std::vector<std::unique_ptr<Slot>> slots_;
    std::size_t bufferSize_ = 0;
};

}  // namespace zpregmon
