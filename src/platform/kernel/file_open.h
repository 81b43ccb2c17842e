// Opening a device or a host file by name.
#pragma once

#include "platform/kernel/caller_memory.h"
#include "platform/kernel/io.h"

namespace platform {

struct OpenRequest {
    ACCESS_MASK desiredAccess;
    ULONG disposition;
    ULONG options;
};

/// The name in the caller's attributes, which must be absolute.
NTSTATUS CaptureFileName(const CallerMemory& memory, POBJECT_ATTRIBUTES attributes,
                         CapturedString& name);

/// Opens what `name` leads to for the current process, as user mode may: a new file object, the
/// access that a handle to it gets, and the open's information.
NTSTATUS OpenFile(std::u16string_view name, const OpenRequest& request, ObjectRef<FileObject>& file,
                  ACCESS_MASK& granted, ULONG_PTR& information);

}  // namespace platform
