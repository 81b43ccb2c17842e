// The table's functions for devices that exist.
#include "platform/framework/contract.h"
#include "platform/framework/device.h"
#include "platform/framework/driver.h"
#include "platform/framework/function_table.h"
#include "platform/framework/queue.h"
#include "platform/kernel/text.h"

namespace platform::framework {

namespace {

NTSTATUS NTAPI DeviceCreate(PWDF_DRIVER_GLOBALS globals, PWDFDEVICE_INIT* init,
                            PWDF_OBJECT_ATTRIBUTES attributes, WDFDEVICE* device) {
    const Call call(globals, "WdfDeviceCreate", PASSIVE_LEVEL);
    WDFDEVICE_INIT& valid = RequireDeviceInit(call, call.NotNull(init, "DeviceInit"));
    call.NotNull(device, "Device");
    *device = nullptr;
    if (const auto fault = call.PlannedFault()) return *fault;
    NTSTATUS status = ValidateAttributes(attributes, ParentRule::kForbidden);
    if (!NT_SUCCESS(status)) return status;
    Device* made = nullptr;
    status = Device::Create(*call.Caller().TheDriver(), valid, attributes, &made);
    if (!NT_SUCCESS(status)) return status;
    call.Caller().RemoveDeviceInit(&valid);
    delete &valid;
    *init = nullptr;
    *device = static_cast<WDFDEVICE>(made->Handle());
    return STATUS_SUCCESS;
}

NTSTATUS NTAPI DeviceCreateSymbolicLink(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle,
                                        PCUNICODE_STRING name) {
    const Call call(globals, "WdfDeviceCreateSymbolicLink", PASSIVE_LEVEL);
    Device& device = call.To<Device>(handle);
    call.NotNull(name, "SymbolicLinkName");
    if (const auto fault = call.PlannedFault()) return *fault;
    return device.CreateSymbolicLink(View(*name));
}

void NTAPI ControlFinishInitializing(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle) {
    const Call call(globals, "WdfControlFinishInitializing", DISPATCH_LEVEL);
    call.To<Device>(handle).FinishInitializing();
}

PDEVICE_OBJECT NTAPI DeviceWdmGetDeviceObject(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle) {
    const Call call(globals, "WdfDeviceWdmGetDeviceObject", DISPATCH_LEVEL);
    return call.To<Device>(handle).KernelDevice();
}

WDFDRIVER NTAPI DeviceGetDriver(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle) {
    const Call call(globals, "WdfDeviceGetDriver", DISPATCH_LEVEL);
    return static_cast<WDFDRIVER>(call.To<Device>(handle).Parent()->Handle());
}

NTSTATUS NTAPI DeviceEnqueueRequest(PWDF_DRIVER_GLOBALS globals, WDFDEVICE handle,
                                    WDFREQUEST requestHandle) {
    const Call call(globals, "WdfDeviceEnqueueRequest", DISPATCH_LEVEL);
    Device& device = call.To<Device>(handle);
    Request& request = call.To<Request>(requestHandle);
    request.RequireDriver(call.Function());
    if (request.CurrentQueue() != nullptr || request.NearestDevice() != &device) {
        Violation(Rule::kFrameworkContract,
                  std::string(call.Function()) + ": " + request.Describe() +
                      " is not one of this device's that EvtIoInCallerContext got",
                  requestHandle);
    }
    if (const auto fault = call.PlannedFault()) return *fault;
    return device.EnqueueFromCaller(call.Function(), request);
}

}  // namespace

void AddDeviceFunctions(FunctionTable& table) {
    table.Set(WdfDeviceCreateTableIndex, &DeviceCreate);
    table.Set(WdfDeviceCreateSymbolicLinkTableIndex, &DeviceCreateSymbolicLink);
    table.Set(WdfControlFinishInitializingTableIndex, &ControlFinishInitializing);
    table.Set(WdfDeviceWdmGetDeviceObjectTableIndex, &DeviceWdmGetDeviceObject);
    table.Set(WdfDeviceGetDriverTableIndex, &DeviceGetDriver);
    table.Set(WdfDeviceEnqueueRequestTableIndex, &DeviceEnqueueRequest);
}

}  // namespace platform::framework
