// Entry points of the driver image and what it leaves behind when it has unloaded: nothing.
#pragma once

#include <wdm.h>

extern "C" {
/// The image's entry point: the framework's loader stub. It binds the framework and calls
/// DriverEntry.
NTSTATUS NTAPI FxDriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);
NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driverObject, PUNICODE_STRING registryPath);
}

namespace zpregflt {

/// Every pool tag of the driver, those included that the support library allocates on its behalf.
inline constexpr ULONG kPoolTags[] = {
    MakeTag("ZRcs"), MakeTag("ZRfm"), MakeTag("ZRsp"), MakeTag("ZrWi"),
    MakeTag("ZRkc"), MakeTag("ZRto"), MakeTag("Zrtn"), MakeTag("ZRpc"),
    MakeTag("ZRtc"), MakeTag("Zrls"), MakeTag("ZRgl"), MakeTag("ZRdl"),
    MakeTag("ZkPi"), MakeTag("ZkC0"), MakeTag("ZkC1"), MakeTag("ZkC2"),
};

}  // namespace zpregflt
