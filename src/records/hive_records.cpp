#include "records/hive_records.h"

#include "intercept/operation_trace.h"
#include "intercept/references.h"
#include "records/caller_memory.h"
#include "records/caller_name.h"
#include "records/post_operation.h"
#include "records/record_size.h"
#include "records/record_writer.h"

namespace zpregflt {

namespace {

void TraceNames(const PostOperation& post, OperationMask bit, const char* message,
                PCUNICODE_STRING first, PCUNICODE_STRING second) {
    if (trace_detail::OperationTraced(bit)) [[unlikely]] {
        const CallerName firstName(first);
        const CallerName secondName(second);
        trace_detail::EmitOperation(post.Object, message, &firstName.Text(), &secondName.Text());
    }
}

bool WriteNamesRecord(RecordType type, const PostOperation& post, OperationMask bit,
                      PCUNICODE_STRING first, PCUNICODE_STRING second) {
    UNICODE_STRING firstName;
    UNICODE_STRING secondName;
    ReadString(first, firstName);
    ReadString(second, secondName);
    const ULONG secondOffset = TwoNamesRecord::kFirstNameOffset + firstName.Length + kTerminator;
    const RecordWriter<TwoNamesRecord> record(
        type, post.Object, ContextOf(post), bit,
        RecordSize(secondOffset, secondName.Length, kTerminator));
    if (!record) {
        return false;
    }
    record->SecondNameOffset = secondOffset;
    CopyStringFromCaller(record.At(TwoNamesRecord::kFirstNameOffset), &firstName, firstName.Length);
    CopyStringFromCaller(record.At(secondOffset), &secondName, secondName.Length);
    return true;
}

// --- Save and restore ----------------------------------------------------------------------------

/// What a save and a restore have in common.
struct FileRequest {
    RecordType type;
    OperationMask bit;
    HANDLE file;
    ULONG options;
    const char* message;  ///< of the verbose trace
};

void TraceFailure(const PostOperation& post, const FileRequest& request, const char* message,
                  NTSTATUS status) {
    ZPRF_TRACE_FILTERED(TRACE_OPERATION, TRACE_LEVEL_WARNING, request.bit, message,
                        PsGetCurrentProcessId(), post.Object, request.file, status);
}

/// The caller itself must be able to read from the file, unless the handle is the kernel's.
FileObjectRef ReferenceFile(const PostOperation& post, const FileRequest& request) {
    const KPROCESSOR_MODE mode = ObIsKernelHandle(request.file) ? KernelMode : UserMode;
    FileObjectRef file;
    const NTSTATUS status = ObReferenceObjectByHandle(
        request.file, FILE_GENERIC_READ, *IoFileObjectType, mode, file.ReceiveBlock(), nullptr);
    if (!NT_SUCCESS(status)) {
        TraceFailure(post, request, "process %p, key %p: file handle %p refused, status %x",
                     status);
        return {};
    }
    return file;
}

/// The name as the record has it, for a trace. The record lies in the client's memory, too: what is
/// read from it is held within the record.
UNICODE_STRING NameInRecord(const RecordWriter<FileRecord>& record, ULONG nameSize) {
    const auto room = static_cast<ULONG>(nameSize - sizeof(OBJECT_NAME_INFORMATION));
    const USHORT written = record->FileNameLength;
    const auto length = static_cast<USHORT>(written < room ? written : room);
    return {length, length, reinterpret_cast<PWSTR>(record.At(sizeof(FileRecord)))};
}

/// Has the object manager write the file's name into the record.
NTSTATUS WriteFileName(const RecordWriter<FileRecord>& record, const FileObjectRef& file,
                       ULONG nameSize) {
    auto* const information =
        reinterpret_cast<POBJECT_NAME_INFORMATION>(record.At(FileRecord::kNameInformationOffset));
    record->FileNameOffset = 0;
    *information = {};
    ULONG returned = 0;
    const NTSTATUS status = ObQueryNameString(file.Get(), information, nameSize, &returned);
    if (!NT_SUCCESS(status)) {
        *information = {};
        return status;
    }
    // A file without a name has no characters either.
    const auto* const name = reinterpret_cast<const UCHAR*>(information->Name.Buffer);
    if (name != nullptr) {
        record->FileNameOffset = static_cast<ULONG>(name - record.At(0));
    }
    return status;
}

bool WriteFileRecord(const PostOperation& post, const FileRequest& request) {
    const FileObjectRef file = ReferenceFile(post, request);
    if (!file) {
        return false;
    }
    ULONG nameSize = 0;
    NTSTATUS status = ObQueryNameString(file.Get(), nullptr, 0, &nameSize);
    if (status != STATUS_INFO_LENGTH_MISMATCH) {
        TraceFailure(post, request, "process %p, key %p: name of file %p unknown, status %x",
                     status);
        return false;
    }
    const RecordWriter<FileRecord> record(request.type, post.Object, ContextOf(post), request.bit,
                                          RecordSize(FileRecord::kNameInformationOffset, nameSize));
    if (!record) {
        return false;
    }
    record->Options = request.options;
    status = WriteFileName(record, file, nameSize);
    if (!NT_SUCCESS(status)) {
        TraceFailure(post, request, "process %p, key %p: name of file %p not written, status %x",
                     status);
        return false;
    }
    if (trace_detail::OperationTraced(request.bit)) [[unlikely]] {
        const UNICODE_STRING name = NameInRecord(record, nameSize);
        trace_detail::EmitOperation(post.Object, request.message, request.options, &name);
    }
    return true;
}

}  // namespace

bool NTAPI HiveLoaded(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& load = RequestOf<REG_LOAD_KEY_INFORMATION>(post);
    TraceNames(post, operation::kLoadKey, "process %p, key %p %Z: LoadKey %Z from %Z", load.KeyName,
               load.SourceFile);
    return WriteNamesRecord(RecordType::kHiveLoaded, post, operation::kLoadKey, load.KeyName,
                            load.SourceFile);
}

bool NTAPI HiveUnloaded(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    TraceKey(post, operation::kUnLoadKey, "UnLoadKey");
    return WriteHeaderRecord(RecordType::kHiveUnloaded, post, operation::kUnLoadKey);
}

bool NTAPI KeyRestored(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& restore = RequestOf<REG_RESTORE_KEY_INFORMATION>(post);
    return WriteFileRecord(
        post, {RecordType::kKeyRestored, operation::kRestoreKey, restore.FileHandle, restore.Flags,
               "process %p, key %p %Z: RestoreKey flags %x, file %Z"});
}

bool NTAPI KeySaved(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& save = RequestOf<REG_SAVE_KEY_INFORMATION>(post);
    return WriteFileRecord(
        post, {RecordType::kKeySaved, operation::kSaveKey, save.FileHandle, save.Format,
               "process %p, key %p %Z: SaveKey format %x, file %Z"});
}

bool NTAPI KeyReplaced(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& replace = RequestOf<REG_REPLACE_KEY_INFORMATION>(post);
    TraceNames(post, operation::kReplaceKey,
               "process %p, key %p %Z: ReplaceKey, old file %Z, new "
               "file %Z",
               replace.OldFileName, replace.NewFileName);
    return WriteNamesRecord(RecordType::kKeyReplaced, post, operation::kReplaceKey,
                            replace.NewFileName, replace.OldFileName);
}

}  // namespace zpregflt
