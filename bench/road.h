// A running driver with a client that keeps buffers lent, for measuring the road of an operation.
#pragma once

#include "client/control_session.h"
#include "platform/machine.h"
#include "zpregmon/replay/platform_device.h"

#include <ntifs.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace zpregflt_bench {

/// Boots once for the whole program; the verifier is off.
class Road {
public:
    /// Boots the first time.
    static Road& Instance();
    /// At the end of the program's main.
    static void TakeDown();

    platform::Machine& Machine() { return machine_; }
    platform::Process& MonitoredProcess() { return *monitored_; }

    Road(const Road&) = delete;
    Road& operator=(const Road&) = delete;
    ~Road();

private:
    Road();
    static std::unique_ptr<Road> instance;

    platform::Machine machine_;
    platform::ObjectRef<platform::Process> client_;
    platform::ObjectRef<platform::Process> monitored_;
    std::optional<zpregmon::PlatformDevice> device_;
    std::optional<zpregmon::ControlSession> session_;
};

/// A key that the calling thread's process has opened, with the post-notification of an operation
/// on it, as the configuration manager would pass it.
class OpenKey {
public:
    /// The key of this name below the keys that are measured with, made if it is missing.
    explicit OpenKey(std::u16string_view keyName);
    ~OpenKey();
    OpenKey(const OpenKey&) = delete;
    OpenKey& operator=(const OpenKey&) = delete;

    const std::u16string& Path() const { return path_; }
    PVOID Object() const { return object_; }
    PVOID Context() const { return context_; }
    /// Notifies the driver of a finished operation of this class.
    void Notify(REG_NOTIFY_CLASS notifyClass);

private:
    std::u16string path_;
    HANDLE handle_ = nullptr;
    PVOID object_ = nullptr;
    PVOID context_ = nullptr;
    REG_POST_OPERATION_INFORMATION post_ = {};
};

}  // namespace zpregflt_bench
