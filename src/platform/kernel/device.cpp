// Devices: their names, who may open them now, how they go, and the shutdown notifications.
#include "platform/kernel/device.h"

#include "platform/kernel/driver_loader.h"
#include "platform/kernel/fault_injection.h"
#include "platform/kernel/verifier.h"

#include <algorithm>

namespace platform {

namespace {

/// Of every driver's list of devices and of what it says of each device.
constinit std::mutex deviceLock;

struct ShutdownNotification {
    DEVICE_OBJECT* device;
    std::function<void()> notify;
};

/// Held while notifications run; recursive, since a notification may delete its device.
std::recursive_mutex shutdownLock;
std::vector<ShutdownNotification> shutdownNotifications;

void DestroyDevice(void* body) {
    static_cast<DEVICE_OBJECT*>(body)->~DEVICE_OBJECT();
}

void LinkDevice(DEVICE_OBJECT* device) {
    std::lock_guard guard(deviceLock);
    device->next = std::exchange(device->driver->DeviceObject, device);
}

/// From now on the device does without its driver. The caller holds deviceLock.
void UnlinkDevice(DEVICE_OBJECT* device) {
    DEVICE_OBJECT** link = &device->driver->DeviceObject;
    while (*link != device) {
        link = &(*link)->next;
    }
    *link = device->next;
}

/// The caller holds deviceLock.
bool AnyDeviceOpen(const DRIVER_OBJECT* driver) {
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr; device = device->next) {
        if (device->openFiles != 0) return true;
    }
    return false;
}

/// DRIVER_OBJECT::Flags: the driver is going, its devices cannot be opened.
constexpr ULONG kUnloadInvoked = 0x1;

}  // namespace

const ObjectType kDeviceType{
    "Device",
    {FILE_GENERIC_READ, FILE_GENERIC_WRITE, FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS},
    FILE_ALL_ACCESS,
    DestroyDevice};

NTSTATUS CreateDevice(PDRIVER_OBJECT driver, std::u16string_view name,
                      const SecurityDescriptor& security, DEVICE_TYPE type, bool exclusive,
                      DEVICE_OBJECT** device) {
    RequireIrql("CreateDevice", PASSIVE_LEVEL);
    if (const auto fault = FailThisCall("IoCreateDevice")) {
        return *fault;
    }
    auto created = ObjectRef<DEVICE_OBJECT>::Adopt(CreateObject<DEVICE_OBJECT>(kDeviceType));
    created->driver = driver;
    created->name = name;
    created->security = security;
    created->type = type;
    created->exclusive = exclusive;
    LinkDevice(created.get());
    if (!name.empty()) {
        const NTSTATUS status = InsertNamedObject(created.get(), name);
        if (!NT_SUCCESS(status)) {
            std::lock_guard guard(deviceLock);
            UnlinkDevice(created.get());
            return status;
        }
    }
    *device = created.release();
    return STATUS_SUCCESS;
}

void DeleteDevice(DEVICE_OBJECT* device) {
    RequireIrql("DeleteDevice", PASSIVE_LEVEL);
    const auto lastReference = ObjectRef<DEVICE_OBJECT>::Adopt(device);
    UnregisterShutdown(device);
    if (!device->name.empty()) RemoveName(device->name);
    std::lock_guard guard(deviceLock);
    device->deleted = true;
    if (device->openFiles == 0) UnlinkDevice(device);
}

NTSTATUS AdmitOpen(DEVICE_OBJECT& device) {
    std::lock_guard guard(deviceLock);
    if (device.deleted || device.initializing || (device.driver->Flags & kUnloadInvoked) != 0) {
        return STATUS_NO_SUCH_DEVICE;
    }
    if (device.exclusive && device.openFiles != 0) {
        return STATUS_ACCESS_DENIED;
    }
    ++device.openFiles;
    return STATUS_SUCCESS;
}

void EndOpen(ObjectRef<DEVICE_OBJECT> device) {
    DRIVER_OBJECT* const driver = device->driver;
    {
        std::lock_guard guard(deviceLock);
        if (--device->openFiles == 0 && device->deleted) UnlinkDevice(device.get());
        if (AnyDeviceOpen(driver)) return;
    }
    device = {};  // with it goes a deleted device, before its driver may
    OnDriverDevicesClosed(driver);
}

bool DriverHasOpenDevices(DRIVER_OBJECT* driver) {
    std::lock_guard guard(deviceLock);
    return AnyDeviceOpen(driver);
}

bool PrepareDriverUnload(DRIVER_OBJECT* driver) {
    std::lock_guard guard(deviceLock);
    driver->Flags |= kUnloadInvoked;
    return !AnyDeviceOpen(driver);
}

void FinishDriverInitialization(DRIVER_OBJECT* driver) {
    std::lock_guard guard(deviceLock);
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr; device = device->next) {
        device->initializing = false;
    }
}

void RegisterShutdown(DEVICE_OBJECT* device, std::function<void()> notify) {
    std::lock_guard guard(shutdownLock);
    shutdownNotifications.push_back({device, std::move(notify)});
}

void UnregisterShutdown(DEVICE_OBJECT* device) {
    std::lock_guard guard(shutdownLock);
    std::erase_if(shutdownNotifications,
                  [device](const ShutdownNotification& entry) { return entry.device == device; });
}

void NotifyShutdown() {
    RequireIrql("NotifyShutdown", PASSIVE_LEVEL);
    std::lock_guard guard(shutdownLock);
    const auto registered = shutdownNotifications;
    for (auto entry = registered.rbegin(); entry != registered.rend(); ++entry) {
        const bool still = std::any_of(
            shutdownNotifications.begin(), shutdownNotifications.end(),
            [&](const ShutdownNotification& now) { return now.device == entry->device; });
        if (still) {
            CallbackCheck check("shutdown notification");
            entry->notify();
        }
    }
}

}  // namespace platform
