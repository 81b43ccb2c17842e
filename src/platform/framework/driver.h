// The framework driver object: the top of a driver's object tree.
#pragma once

#include "platform/framework/object.h"

#include <string>

namespace platform::framework {

class Driver final : public Object {
public:
    static constexpr ObjectKind kKind = ObjectKind::kDriver;

    /// Makes the driver object, fills the driver's globals and takes over the dispatch table.
    static NTSTATUS Create(Binding& binding, PCUNICODE_STRING registryPath,
                           const WDF_OBJECT_ATTRIBUTES* attributes, const WDF_DRIVER_CONFIG& config,
                           Driver** driver);

    PWSTR RegistryPath() { return reinterpret_cast<PWSTR>(registryPath_.data()); }
    /// Deletes the object with everything below it; returns when that has been disposed.
    void DeleteWithDevices();

private:
    Driver(Binding& binding, std::u16string registryPath, EVT_WDF_DRIVER_UNLOAD* unload);
    ~Driver() override = default;
    static void NTAPI Unload(PDRIVER_OBJECT driverObject);

    std::u16string registryPath_;
    EVT_WDF_DRIVER_UNLOAD* unload_;
};

}  // namespace platform::framework
