#include "zpregmon/replay/monitored_machine.h"

#include "zpregmon/replay/drivers.h"

#include <fmt/format.h>

#include <array>

namespace zpregmon {

using platform::Describe;

namespace {

/// Closes a key of the current process at the end of its life.
class Key {
public:
    ~Key() {
        if (handle_ != nullptr) {
            NtClose(handle_);
        }
    }
    Key() = default;
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;
    HANDLE Get() const { return handle_; }
    HANDLE* Receive() { return &handle_; }

private:
    HANDLE handle_ = nullptr;
};

NTSTATUS CreateKey(std::u16string_view path) {
    UNICODE_STRING name = Describe(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    Key key;
    return NtCreateKey(key.Receive(), MAXIMUM_ALLOWED, &attributes, 0, nullptr, 0, nullptr);
}

/// Deletes the key, below `root` or by absolute path, with everything under it.
NTSTATUS DeleteTree(HANDLE root, std::u16string_view path) {
    UNICODE_STRING name = Describe(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
    Key key;
    NTSTATUS status = NtOpenKey(key.Receive(), MAXIMUM_ALLOWED, &attributes);
    while (NT_SUCCESS(status)) {
        constexpr std::size_t kNameOffset = offsetof(KEY_BASIC_INFORMATION, Name);
        alignas(KEY_BASIC_INFORMATION) std::array<std::byte, 1024> buffer;
        ULONG needed = 0;
        status = NtEnumerateKey(key.Get(), 0, KeyBasicInformation, buffer.data(),
                                static_cast<ULONG>(buffer.size()), &needed);
        if (status == STATUS_NO_MORE_ENTRIES) {
            return NtDeleteKey(key.Get());
        }
        if (NT_SUCCESS(status)) {
            const auto* found = reinterpret_cast<const KEY_BASIC_INFORMATION*>(buffer.data());
            status = DeleteTree(key.Get(),
                                {reinterpret_cast<const char16_t*>(buffer.data() + kNameOffset),
                                 found->NameLength / sizeof(char16_t)});
        }
    }
    return status;
}

}  // namespace

MachineError::MachineError(const std::string& step, NTSTATUS status)
    : std::runtime_error(
          fmt::format("cannot {}: status {:08x}", step, static_cast<std::uint32_t>(status))) {}

MonitoredMachine::MonitoredMachine(const MachineSettings& settings) {
    WriteSettings(settings.overrideMask);
    Load(SupportLibraryImage());
    try {
        StartClient(settings.clientId);
        CreateInitialKeys(settings.initialKeys);
        Load(RegistryMonitorImage());
        RemoveServiceKeys();
    } catch (...) {
        // Nobody has opened the control device: the drivers can go.
        machine_.UnloadDriver(RegistryMonitorImage().name);
        machine_.UnloadDriver(SupportLibraryImage().name);
        throw;
    }
}

MonitoredMachine::~MonitoredMachine() = default;  // the machine ends processes and drivers

void MonitoredMachine::WriteSettings(std::uint32_t overrideMask) {
    machine_.SetRegistryStrings(platform::ServiceKeyPath(SupportLibraryImage().name),
                                u"TrustedImages", {std::u16string(kClientImage)});
    machine_.SetRegistryDword(
        platform::ServiceKeyPath(RegistryMonitorImage().name) + u"\\Parameters\\Report",
        u"Override", overrideMask);
}

void MonitoredMachine::StartClient(std::uintptr_t id) {
    platform::ProcessOptions options;
    options.imagePath = kClientImage;
    options.id = id;
    client_ = machine_.StartProcess(options);
    if (!client_) {
        throw MachineError("start the client process", STATUS_ACCESS_DENIED);
    }
}

void MonitoredMachine::CreateInitialKeys(const std::vector<std::u16string_view>& paths) {
    const platform::ThreadScope scope(*client_);
    for (const std::u16string_view path : paths) {
        // Every ancestor behind \Registry, then the key itself.
        for (std::size_t end = path.find(u'\\', 1); end != std::u16string_view::npos;) {
            end = path.find(u'\\', end + 1);
            if (const NTSTATUS status = CreateKey(path.substr(0, end)); !NT_SUCCESS(status)) {
                throw MachineError(fmt::format("create the initial key {}", platform::ToUtf8(path)),
                                   status);
            }
        }
    }
}

/// A recorded system had no such drivers, and its programs list the keys around the service keys.
/// The drivers have read theirs and keep them open, which does not hinder.
void MonitoredMachine::RemoveServiceKeys() {
    const platform::ThreadScope scope(*client_);
    const NTSTATUS status = DeleteTree(nullptr, u"\\Registry\\Machine\\System");
    if (!NT_SUCCESS(status)) {
        throw MachineError("remove the drivers' service keys", status);
    }
}

void MonitoredMachine::Load(const platform::DriverImage& image) {
    if (const NTSTATUS status = machine_.LoadDriver(image); !NT_SUCCESS(status)) {
        throw MachineError("load " + platform::ToUtf8(image.name), status);
    }
}

void MonitoredMachine::Unload(std::u16string_view name) {
    if (const NTSTATUS status = machine_.UnloadDriver(name); !NT_SUCCESS(status)) {
        throw MachineError("unload " + platform::ToUtf8(name), status);
    }
}

void MonitoredMachine::TakeDown() {
    machine_.ExitProcess(*client_);
    client_ = {};
    Unload(RegistryMonitorImage().name);
    Unload(SupportLibraryImage().name);
}

std::u16string MonitoredMachine::DevicePath(std::u16string_view win32Path) {
    struct Drive {
        std::u16string_view prefix;
        std::u16string_view device;
    };
    constexpr Drive kDrives[] = {
        {u"C:\\", u"\\Device\\HarddiskVolume1\\"},
        {u"Z:\\", u"\\Device\\HarddiskVolume2\\"},
    };
    for (const Drive& drive : kDrives) {
        if (platform::EqualIgnoringCase(win32Path.substr(0, drive.prefix.size()), drive.prefix)) {
            return std::u16string(drive.device).append(win32Path.substr(drive.prefix.size()));
        }
    }
    return std::u16string(win32Path);
}

}  // namespace zpregmon
