#include "platform/framework/driver.h"

#include "platform/framework/contract.h"
#include "platform/framework/dispatch.h"
#include "platform/framework/function_table.h"
#include "platform/kernel/text.h"

#include <algorithm>
#include <string_view>

namespace platform::framework {

namespace {

std::u16string_view ServiceName(std::u16string_view registryPath) {
    return registryPath.substr(registryPath.rfind(u'\\') + 1);
}

/// The first four characters of the service name, as the framework tags the driver's memory.
ULONG DefaultTag(std::string_view name) {
    ULONG tag = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        const auto character = static_cast<UCHAR>(i < name.size() ? name[i] : ' ');
        tag |= static_cast<ULONG>(character) << (8 * i);
    }
    return tag;
}

void FillGlobals(WDF_DRIVER_GLOBALS& globals, std::u16string_view registryPath,
                 const WDF_DRIVER_CONFIG& config) {
    const std::string name = ToUtf8(ServiceName(registryPath));
    globals.DriverFlags = config.DriverInitFlags;
    globals.DriverTag = config.DriverPoolTag != 0 ? config.DriverPoolTag : DefaultTag(name);
    std::fill(std::begin(globals.DriverName), std::end(globals.DriverName), '\0');
    std::copy_n(name.begin(), std::min(name.size(), sizeof(globals.DriverName) - 1),
                globals.DriverName);
    globals.DisplaceDriverUnload = config.EvtDriverUnload != nullptr;
}

NTSTATUS CheckConfig(const WDF_DRIVER_CONFIG& config) {
    constexpr ULONG kKnownFlags = WdfDriverInitNonPnpDriver | WdfDriverInitNoDispatchOverride;
    if (config.Size != sizeof(config)) return STATUS_INFO_LENGTH_MISMATCH;
    if ((config.DriverInitFlags & ~kKnownFlags) != 0) return STATUS_INVALID_PARAMETER;
    if ((config.DriverInitFlags & WdfDriverInitNonPnpDriver) == 0) {
        Violation(Rule::kNotOffered, "WdfDriverCreate: only WdfDriverInitNonPnpDriver is offered");
    }
    return config.EvtDriverDeviceAdd == nullptr ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

}  // namespace

Driver::Driver(Binding& binding, std::u16string registryPath, EVT_WDF_DRIVER_UNLOAD* unload)
    : Object(binding, kKind), registryPath_(std::move(registryPath)), unload_(unload) {}

NTSTATUS Driver::Create(Binding& binding, PCUNICODE_STRING registryPath,
                        const WDF_OBJECT_ATTRIBUTES* attributes, const WDF_DRIVER_CONFIG& config,
                        Driver** driver) {
    if (binding.TheDriver() != nullptr) return STATUS_DRIVER_INTERNAL_ERROR;
    auto* made = new Driver(binding, std::u16string(View(*registryPath)), config.EvtDriverUnload);
    const NTSTATUS status = made->Join(attributes, nullptr);
    if (!NT_SUCCESS(status)) {
        made->Abandon();
        return status;
    }
    FillGlobals(binding.Globals(), View(*registryPath), config);
    binding.SetDriver(made);
    DRIVER_OBJECT& driverObject = *binding.DriverObject();
    if (driverObject.DriverExtension != nullptr) driverObject.DriverExtension->AddDevice = nullptr;
    if ((config.DriverInitFlags & WdfDriverInitNoDispatchOverride) == 0) {
        for (auto& major : driverObject.MajorFunction)
            major = &Dispatch;
    }
    if (config.EvtDriverUnload != nullptr) driverObject.DriverUnload = &Driver::Unload;
    *driver = made;
    return STATUS_SUCCESS;
}

void Driver::DeleteWithDevices() {
    ObjectPtr<Driver> keep(this);
    Delete();
    Owner().SetDriver(nullptr);
}

void Driver::Unload(PDRIVER_OBJECT driverObject) {
    Binding* binding = Binding::FromDriverObject(driverObject);
    if (binding == nullptr || binding->TheDriver() == nullptr) {
        FrameworkBugcheck("driver unload: the driver has no framework driver object", driverObject);
    }
    Driver& driver = *binding->TheDriver();
    {
        CallbackCheck check("EvtDriverUnload");
        driver.unload_(static_cast<WDFDRIVER>(driver.Handle()));
    }
    driver.DeleteWithDevices();
}

// --- Table functions -----------------------------------------------------------------------------

namespace {

NTSTATUS NTAPI DriverCreate(PWDF_DRIVER_GLOBALS globals, PDRIVER_OBJECT driverObject,
                            PCUNICODE_STRING registryPath, PWDF_OBJECT_ATTRIBUTES attributes,
                            PWDF_DRIVER_CONFIG config, WDFDRIVER* driver) {
    const Call call(globals, "WdfDriverCreate", PASSIVE_LEVEL);
    call.NotNull(driverObject, "DriverObject");
    call.NotNull(registryPath, "RegistryPath");
    call.NotNull(config, "DriverConfig");
    if (driver != nullptr) *driver = nullptr;
    if (driverObject != call.Caller().DriverObject()) {
        FrameworkBugcheck("WdfDriverCreate: not the driver object that the driver bound with",
                          driverObject);
    }
    if (const auto fault = call.PlannedFault()) return *fault;
    NTSTATUS status = CheckConfig(*config);
    if (NT_SUCCESS(status)) status = ValidateAttributes(attributes, ParentRule::kForbidden);
    Driver* made = nullptr;
    if (NT_SUCCESS(status)) {
        status = Driver::Create(call.Caller(), registryPath, attributes, *config, &made);
    }
    if (NT_SUCCESS(status) && driver != nullptr) *driver = static_cast<WDFDRIVER>(made->Handle());
    return status;
}

PWSTR NTAPI DriverGetRegistryPath(PWDF_DRIVER_GLOBALS globals, WDFDRIVER handle) {
    const Call call(globals, "WdfDriverGetRegistryPath", PASSIVE_LEVEL);
    return call.To<Driver>(handle).RegistryPath();
}

PDRIVER_OBJECT NTAPI DriverWdmGetDriverObject(PWDF_DRIVER_GLOBALS globals, WDFDRIVER handle) {
    const Call call(globals, "WdfDriverWdmGetDriverObject", DISPATCH_LEVEL);
    return call.To<Driver>(handle).Owner().DriverObject();
}

}  // namespace

void AddDriverFunctions(FunctionTable& table) {
    table.Set(WdfDriverCreateTableIndex, &DriverCreate);
    table.Set(WdfDriverGetRegistryPathTableIndex, &DriverGetRegistryPath);
    table.Set(WdfDriverWdmGetDriverObjectTableIndex, &DriverWdmGetDriverObject);
}

}  // namespace platform::framework
