// The registry callback: applies the operation table's gates and calls the handlers.
#pragma once

#include <ntifs.h>

namespace zpregflt {

/// `callbackContext` is the DriverState; `argument1` the notification class; `argument2` the
/// class's structure. Never changes the outcome of an operation: always STATUS_SUCCESS. Runs on the
/// thread that performs the operation, on any number of threads at once, at PASSIVE_LEVEL; takes no
/// lock and allocates nothing.
NTSTATUS NTAPI RegistryCallback(PVOID callbackContext, PVOID argument1, PVOID argument2);

}  // namespace zpregflt
