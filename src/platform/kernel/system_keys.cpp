#include "platform/kernel/system_keys.h"

#include "platform/kernel/fault_injection.h"
#include "platform/kernel/process.h"
#include "platform/machine.h"

#include <string>

namespace platform {

namespace {

/// The root, and the first level below it, exist in every registry and cannot be made.
constexpr std::u16string_view kRegistry = u"\\Registry";

/// A handle of the kernel, closed with the guard.
class KeyHandle {
public:
    KeyHandle() = default;
    ~KeyHandle() {
        if (handle_ != nullptr) ZwClose(handle_);
    }
    KeyHandle(const KeyHandle&) = delete;
    KeyHandle& operator=(const KeyHandle&) = delete;

    NTSTATUS Create(std::u16string_view path) {
        if (handle_ != nullptr) ZwClose(std::exchange(handle_, nullptr));
        UNICODE_STRING name = Describe(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                                   nullptr, nullptr);
        return ZwCreateKey(&handle_, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr);
    }
    HANDLE Get() const { return handle_; }

private:
    HANDLE handle_ = nullptr;
};

/// Creates every key of the path, one after the other, and leaves the last one open.
NTSTATUS MakeKeys(std::u16string_view path, KeyHandle& key) {
    if (path.size() <= kRegistry.size() + 1 ||
        !EqualIgnoringCase(path.substr(0, kRegistry.size()), kRegistry)) {
        return STATUS_OBJECT_PATH_SYNTAX_BAD;
    }
    std::size_t end = path.find(u'\\', kRegistry.size() + 1);
    for (;;) {
        if (end != std::u16string_view::npos) end = path.find(u'\\', end + 1);
        const NTSTATUS status = key.Create(path.substr(0, end));
        if (!NT_SUCCESS(status) || end == std::u16string_view::npos) return status;
    }
}

}  // namespace

NTSTATUS MakeServiceKey(std::u16string_view name) {
    const NoFaults noFaults;
    KeyHandle key;
    return MakeKeys(ServiceKeyPath(name), key);
}

NTSTATUS SetValueOfKey(std::u16string_view path, std::u16string_view value, ULONG type,
                       const void* data, std::size_t size) {
    const NoFaults noFaults;
    const ThreadScope system(SystemProcess());
    KeyHandle key;
    const NTSTATUS status = MakeKeys(path, key);
    if (!NT_SUCCESS(status)) return status;
    UNICODE_STRING name = Describe(value);
    return ZwSetValueKey(key.Get(), &name, 0, type, const_cast<void*>(data),
                         static_cast<ULONG>(size));
}

}  // namespace platform
