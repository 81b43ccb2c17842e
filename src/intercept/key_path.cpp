#include "intercept/key_path.h"

#include "intercept/tracing.h"

namespace zpregflt {

namespace {

bool IsAbsolute(const UNICODE_STRING* name) {
    return name != nullptr && name->Buffer != nullptr && name->Length >= sizeof(WCHAR) &&
           name->Buffer[0] == L'\\';
}

NTSTATUS JoinKeyPath(PUNICODE_STRING name, PVOID object,
                     PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag>& block) {
    static constinit UNICODE_STRING separator = LiteralString(L"\\");
    const ULONG spareBytes = name != nullptr ? name->Length + separator.Length : 0;
    const NTSTATUS status = QueryObjectName(object, spareBytes, block);
    if (NT_SUCCESS(status) && name != nullptr && name->Buffer != nullptr) {
        // The block has room for both, so neither can fail, unless the whole path is longer than a
        // counted string can say: it is then left as it was.
        RtlAppendUnicodeStringToString(&block->Name, &separator);
        RtlAppendUnicodeStringToString(&block->Name, name);
    }
    return status;
}

}  // namespace

NTSTATUS QueryObjectName(PVOID object, ULONG spareBytes,
                         PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag>& name) {
    ULONG size = 0;
    if (ObQueryNameString(object, nullptr, 0, &size) != STATUS_INFO_LENGTH_MISMATCH) {
        return STATUS_INVALID_PARAMETER;
    }
    size += spareBytes;
    name.Reset(
        static_cast<POBJECT_NAME_INFORMATION>(ExAllocatePoolWithTag(PagedPool, size, kKeyPathTag)));
    if (!name) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ULONG returned = 0;
    const NTSTATUS status = ObQueryNameString(object, name.Get(), size, &returned);
    if (!NT_SUCCESS(status)) {
        name.Reset();
        return status;
    }
    constexpr ULONG kLongest = 0xFFFE;
    const ULONG room = size - static_cast<ULONG>(sizeof(OBJECT_NAME_INFORMATION));
    name->Name.MaximumLength = static_cast<USHORT>(room < kLongest ? room : kLongest);
    return STATUS_SUCCESS;
}

NTSTATUS BuildKeyPath(PUNICODE_STRING name, PVOID object, KeyPath& path) {
    if (IsAbsolute(name)) {
        path.text_ = *name;
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = JoinKeyPath(name, object, path.block_);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION,
                   "path unavailable: name %Z, object %p, status %x",
                   static_cast<const UNICODE_STRING*>(name), object, status);
        return status;
    }
    path.text_ = path.block_->Name;
    return STATUS_SUCCESS;
}

}  // namespace zpregflt
