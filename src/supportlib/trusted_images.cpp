#include "supportlib/trusted_images.h"

#include "supportlib/driver_entry.h"

#include <ntifs.h>

namespace zpklib {

namespace {

/// The value as the registry gave it: strings, each with a terminator.
constinit KEY_VALUE_PARTIAL_INFORMATION* trustedImages = nullptr;

class KeyHandle {
public:
    NTSTATUS Open(PUNICODE_STRING path) {
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, path, OBJ_CASE_INSENSITIVE | OBJ_KERNEL_HANDLE,
                                   nullptr, nullptr);
        return ZwOpenKey(&handle_, KEY_QUERY_VALUE, &attributes);
    }
    ~KeyHandle() {
        if (handle_ != nullptr) {
            ZwClose(handle_);
        }
    }
    KeyHandle() = default;
    KeyHandle(const KeyHandle&) = delete;
    KeyHandle& operator=(const KeyHandle&) = delete;

    HANDLE Get() const { return handle_; }

private:
    HANDLE handle_ = nullptr;
};

NTSTATUS ReadValue(HANDLE key, KEY_VALUE_PARTIAL_INFORMATION** value) {
    UNICODE_STRING name = LiteralString(L"TrustedImages");
    ULONG size = 0;
    NTSTATUS status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, nullptr, 0, &size);
    if (status != STATUS_BUFFER_TOO_SMALL && status != STATUS_BUFFER_OVERFLOW) {
        return status;
    }
    auto* read = static_cast<KEY_VALUE_PARTIAL_INFORMATION*>(
        ExAllocatePoolWithTag(PagedPool, size, kTrustedTag));
    if (read == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    status = ZwQueryValueKey(key, &name, KeyValuePartialInformation, read, size, &size);
    if (NT_SUCCESS(status) && read->Type != REG_MULTI_SZ) {
        status = STATUS_OBJECT_TYPE_MISMATCH;
    }
    if (!NT_SUCCESS(status)) {
        ExFreePoolWithTag(read, kTrustedTag);
        return status;
    }
    *value = read;
    return STATUS_SUCCESS;
}

/// Takes the next string off the list; the last one may lack its terminator.
TextView NextString(TextView& list) {
    ULONG length = 0;
    while (length != list.Length && list.Text[length] != 0) {
        ++length;
    }
    const TextView text = list.First(length);
    list = list.From(length == list.Length ? length : length + 1);
    return text;
}

}  // namespace

NTSTATUS ReadTrustedImages(PUNICODE_STRING serviceKey) {
    KeyHandle key;
    NTSTATUS status = key.Open(serviceKey);
    if (NT_SUCCESS(status)) {
        status = ReadValue(key.Get(), &trustedImages);
    }
    return status == STATUS_OBJECT_NAME_NOT_FOUND ? STATUS_SUCCESS : status;
}

void FreeTrustedImages() {
    if (trustedImages != nullptr) {
        ExFreePoolWithTag(trustedImages, kTrustedTag);
        trustedImages = nullptr;
    }
}

bool IsTrustedImage(TextView imagePath) {
    if (trustedImages == nullptr) {
        return false;
    }
    // The data lies 12 bytes into a pool block, so its characters are aligned.
    TextView list = {reinterpret_cast<const WCHAR*>(trustedImages->Data),
                     static_cast<ULONG>(trustedImages->DataLength / sizeof(WCHAR))};
    while (list.Length != 0) {
        if (EndsWithPath(imagePath, NextString(list))) {
            return true;
        }
    }
    return false;
}

}  // namespace zpklib
