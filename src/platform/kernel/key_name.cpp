#include "platform/kernel/key_name.h"

#include "platform/kernel/key_lookup.h"

namespace platform {

NTSTATUS KeyName::Capture(const CallerMemory& memory, const OBJECT_ATTRIBUTES& attributes) {
    const NTSTATUS status = given.Capture(memory, attributes.ObjectName);
    if (!NT_SUCCESS(status)) return status;
    const std::u16string_view name = given.Text();
    const bool isAbsolute = name.starts_with(u'\\');
    if (attributes.RootDirectory != nullptr) {
        if (isAbsolute) return STATUS_OBJECT_PATH_SYNTAX_BAD;
        path = name;
        return ReferenceHandle(attributes.RootDirectory, 0, kKeyType, memory.Mode(), root);
    }
    if (!isAbsolute) return STATUS_OBJECT_PATH_SYNTAX_BAD;
    if (!StripRegistryRoot(name, path)) return STATUS_OBJECT_PATH_NOT_FOUND;
    root = ObjectRef<KeyObject>(&RegistryRootObject());
    return STATUS_SUCCESS;
}

}  // namespace platform
