// A machine with the driver at work: booted, drivers loaded, a client process that they trust.
#pragma once

#include "platform/machine.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zpregmon {

/// A step of the machine's life that failed.
class MachineError : public std::runtime_error {
public:
    MachineError(const std::string& step, NTSTATUS status);
};

struct MachineSettings {
    /// Which processes are monitored although they are trusted or exempt: bits of
    /// driver/control_codes.h.
    std::uint32_t overrideMask = 0;
    std::uintptr_t clientId = 0;  ///< of the client process; 0: the machine chooses
    /// Keys that exist before anything is monitored, by absolute path.
    std::vector<std::u16string_view> initialKeys;
};

/// The registry holds the initial keys and nothing else: the drivers' service keys, from which they
/// have read their settings, are gone when the constructor returns.
class MonitoredMachine {
public:
    /// Throws MachineError.
    explicit MonitoredMachine(const MachineSettings& settings);
    /// Ends what TakeDown would have ended.
    ~MonitoredMachine();
    MonitoredMachine(const MonitoredMachine&) = delete;
    MonitoredMachine& operator=(const MonitoredMachine&) = delete;

    static constexpr std::u16string_view kClientImage =
        u"\\Device\\HarddiskVolume1\\Program Files\\zpregmon\\zpregmon.exe";

    platform::Machine& Machine() { return machine_; }
    platform::Process& Client() { return *client_; }
    /// Where a program's file lies: C:\x is \Device\HarddiskVolume1\x, Z:\x is on volume 2.
    static std::u16string DevicePath(std::u16string_view win32Path);

    /// Ends the client process, which must have closed the control device, and unloads the drivers.
    /// Throws MachineError when one refuses.
    void TakeDown();

private:
    void WriteSettings(std::uint32_t overrideMask);
    void StartClient(std::uintptr_t id);
    void CreateInitialKeys(const std::vector<std::u16string_view>& paths);
    void RemoveServiceKeys();
    void Load(const platform::DriverImage& image);
    void Unload(std::u16string_view name);

    platform::Machine machine_;
    platform::ObjectRef<platform::Process> client_;
};

}  // namespace zpregmon
