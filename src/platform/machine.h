// What a test or a tool holds: a machine that boots, starts processes and loads drivers.
//
// One machine at a time in a host process. Everything below is called from host threads that are
// not inside kernel code.
#pragma once

#include "platform/kernel/event_trace.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/process.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

struct MachineOptions {
    std::uint32_t majorVersion = 10;
    std::uint32_t minorVersion = 0;
    std::uint32_t buildNumber = 19045;
};

/// A driver linked into this program: its entry point and what its image header says.
struct DriverImage {
    std::u16string name{};  ///< service name, e.g. zpregflt
    DRIVER_INITIALIZE* entry = nullptr;
    bool integrityChecked = true;
    /// Pool tags that must be back at zero when the driver has unloaded.
    std::vector<std::uint32_t> poolTags{};
};

struct ProcessOptions {
    std::u16string imagePath{};  ///< e.g. \Device\HarddiskVolume1\Windows\System32\reg.exe
    std::uintptr_t parentId = 0;
    std::uintptr_t id = 0;  ///< 0: the machine chooses a multiple of 4
    Token token{};
};

/// What a machine still holds; empty after everything was given back.
struct Leaks {
    std::vector<std::string> lines;  ///< one line a pool tag, object type or registered callback
    bool None() const { return lines.empty(); }
};

class Machine {
public:
    explicit Machine(const MachineOptions& options = {});
    /// Ends every process, unloads the drivers, drops the registry and then stops with a leak
    /// violation (kPoolLeaked, else kObjectLeaked) if anything was left and the verifier is on.
    ~Machine();
    Machine(const Machine&) = delete;
    Machine& operator=(const Machine&) = delete;

    /// Makes the service key (\Registry\Machine\System\CurrentControlSet\Services\<name>) if it is
    /// missing and calls the entry point in a system thread. The status is the entry point's.
    NTSTATUS LoadDriver(const DriverImage& image);
    /// STATUS_INVALID_DEVICE_REQUEST when the driver cannot be unloaded or is not loaded;
    /// STATUS_DEVICE_BUSY while one of its devices is open (the driver then unloads with the last
    /// handle).
    NTSTATUS UnloadDriver(std::u16string_view name);
    bool IsLoaded(std::u16string_view name) const;

    /// Raises the process notifications, in the parent's context if the parent runs; a notification
    /// that refuses gives null. Throws std::invalid_argument for an id that is in use or no
    /// multiple of 4.
    ObjectRef<Process> StartProcess(const ProcessOptions& options);
    /// Raises the exit notification and then closes the process's handles, both in its context. Its
    /// threads must have left kernel mode.
    void ExitProcess(Process& process, NTSTATUS exitStatus = STATUS_SUCCESS);
    Process& SystemProcess();

    /// Sets a registry value by absolute key path as the system does, making the keys. Throws
    /// std::invalid_argument, naming the key, when the registry refuses.
    void SetRegistryValue(std::u16string_view key, std::u16string_view value, std::uint32_t type,
                          const void* data, std::size_t size);
    void SetRegistryDword(std::u16string_view key, std::u16string_view value, std::uint32_t number);
    void SetRegistryString(std::u16string_view key, std::u16string_view value,
                           std::u16string_view text);
    void SetRegistryStrings(std::u16string_view key, std::u16string_view value,
                            const std::vector<std::u16string>& texts);

    /// Calls the shutdown notifications; the machine goes on running.
    void NotifyShutdown();

    /// The system time stands still at `time` until it is moved again; 0 lets it run.
    void SetSystemTime(std::int64_t time);

    /// What is left that drivers or processes should have given back, to be asked when they are
    /// gone: what a loaded driver or a live process still holds is listed too. The machine's own
    /// objects are not counted.
    Leaks FindLeaks() const;
    /// For tests that stopped the machine on purpose: what is left now is not a leak, and the
    /// machine goes down without calling drivers any more.
    void ForgetLeaks();

private:
    struct State;
    std::unique_ptr<State> state_;
};

/// Bytes and blocks that are allocated under a pool tag right now.
struct PoolUsage {
    std::size_t blocks = 0;
    std::size_t bytes = 0;
};
PoolUsage QueryPoolUsage(std::uint32_t tag);

/// Where service keys live: the registry path that a driver's entry point gets.
std::u16string ServiceKeyPath(std::u16string_view name);

}  // namespace platform
