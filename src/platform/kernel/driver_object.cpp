// Driver objects.
#include "platform/kernel/io.h"
#include "platform/kernel/text.h"
#include "platform/kernel/verifier.h"

namespace platform {

namespace {

/// The object type number of drivers in DRIVER_OBJECT::Type.
constexpr CSHORT kDriverObjectType = 4;

/// A driver object and what its members point to.
struct Driver : DRIVER_OBJECT {
    DRIVER_EXTENSION extension{};
    std::u16string name;
    std::u16string serviceName;
};

void DestroyDriver(void* body) {
    static_cast<Driver*>(body)->~Driver();
}

NTSTATUS NTAPI RefuseRequest(PDEVICE_OBJECT, PIRP irp) {
    irp->status = STATUS_INVALID_DEVICE_REQUEST;
    CompleteIrp(irp);
    return STATUS_INVALID_DEVICE_REQUEST;
}

void RefuseRequests(DRIVER_OBJECT& driver) {
    for (DRIVER_DISPATCH*& dispatch : driver.MajorFunction) {
        dispatch = RefuseRequest;
    }
}

}  // namespace

const ObjectType kDriverType{"Driver", {}, 0, DestroyDriver};

DRIVER_OBJECT* CreateDriverObject(std::u16string_view serviceName) {
    auto* driver = CreateObject<Driver>(kDriverType);
    driver->name = std::u16string(u"\\Driver\\").append(serviceName);
    driver->serviceName = serviceName;
    driver->extension.DriverObject = driver;
    driver->extension.ServiceKeyName = Describe(driver->serviceName);
    driver->Type = kDriverObjectType;
    driver->Size = sizeof(DRIVER_OBJECT);
    driver->DriverExtension = &driver->extension;
    driver->DriverName = Describe(driver->name);
    RefuseRequests(*driver);
    return driver;
}

void AbandonDriver(DRIVER_OBJECT* driver) {
    RefuseRequests(*driver);
    for (DEVICE_OBJECT* device = driver->DeviceObject; device != nullptr; device = device->next) {
        UnregisterShutdown(device);
        if (!device->deleted && !device->name.empty()) RemoveName(device->name);
    }
}

void DeleteDriverObject(DRIVER_OBJECT* driver) {
    if (driver->DeviceObject != nullptr) {
        Violation(Rule::kObjectLeaked,
                  "driver " + ToUtf8(View(driver->DriverName)) + " left its device " +
                      ToUtf8(driver->DeviceObject->name) + " behind",
                  driver);
    }
    DereferenceObject(driver);
}

}  // namespace platform
