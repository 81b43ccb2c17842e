#include "records/key_lifetime.h"

#include <lock_guards.h>
#include <ntifs.h>

#include "intercept/key_path.h"
#include "intercept/operation_trace.h"
#include "intercept/tracing.h"
#include "records/caller_memory.h"
#include "records/caller_name.h"
#include "records/post_operation.h"
#include "records/record_size.h"
#include "records/record_writer.h"

namespace zpregflt {

namespace {

using CapturedPath = PoolBlock<OBJECT_NAME_INFORMATION, kKeyPathTag>;

CapturedPath TakeCapturedPath(const PostOperation& post) {
    return CapturedPath(static_cast<POBJECT_NAME_INFORMATION>(post.CallContext));
}

const UNICODE_STRING* TextOf(const CapturedPath& path) {
    return path ? &path->Name : nullptr;
}

/// Stores the key's path, as the object manager has it, in `callContext`, unless the tree knows it.
void Capture(PVOID object, const KeyObjectContext& context, PVOID& callContext) {
    if (context.Node() != nullptr) {
        return;
    }
    CapturedPath path;
    const NTSTATUS status = QueryObjectName(object, 0, path);
    if (!NT_SUCCESS(status)) {
        ZPRF_TRACE(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, "key %p: path not captured, status %x",
                   object, status);
        return;
    }
    callContext = path.Detach();
}

bool Records(const PostOperation& post, OperationMask bit) {
    return (ContextOf(post).ProcessContext->Operations & bit) != 0;
}

/// The node of exactly this path, or none.
KeyNodeRef FindNode(const DriverState& state, const UNICODE_STRING& path) {
    UNICODE_STRING rest = path;
    KeyNodeRef node;
    KeyEntryRef entry;
    if (ZPkDtLookup(state.KeyTree, &rest, node.Receive(), entry.ReceiveBlock()) &&
        rest.Length != 0) {
        node.Reset();
    }
    return node;
}

void RemoveFromTree(const DriverState& state, const PostOperation& post, const CapturedPath& path) {
    if (ZPK_NODE* node = ContextOf(post).Node(); node != nullptr) {
        ZPkDtDelete(state.KeyTree, nullptr, node);
        return;
    }
    if (path) {
        if (const KeyNodeRef node = FindNode(state, path->Name); node) {
            ZPkDtDelete(state.KeyTree, nullptr, node.Get());
        }
    }
}

bool WriteRenameRecord(const PostOperation& post, const UNICODE_STRING& newName,
                       const CapturedPath& path) {
    const RecordWriter<NameRecord> record(
        RecordType::kKeyRenamed, post.Object, ContextOf(post), operation::kRenameKey,
        RecordSize(NameRecord::kNameOffset, newName.Length, kTerminator), TextOf(path));
    if (!record) {
        return false;
    }
    CopyStringFromCaller(record.At(NameRecord::kNameOffset), &newName, newName.Length);
    return true;
}

/// Gives the node its new name, in the tree that all key objects on it share, and has the next
/// record write the new path. A name that cannot be read, or for which there is no memory, leaves
/// the tree with the old one, which names the key better than an empty one would. The node itself
/// stays the same, so other threads that use this key object's node meanwhile keep a good one.
void RenameInTree(const DriverState& state, const PostOperation& post,
                  const UNICODE_STRING& newName) {
    const KeyObjectContext& context = ContextOf(post);
    ZPK_NODE* node = context.Node();
    if (node == nullptr) {
        return;
    }
    const CallerName readable(&newName);
    if (readable.Text().Length == 0 ||
        ZPkDtRename(state.KeyTree, &readable.Text(), &node) != STATUS_SUCCESS) {
        return;
    }
    if (KeyEntry* entry = context.Entry(); entry != nullptr) {
        const GuardedMutexGuard guard(entry->EntryLock);
        entry->ForgetName();
    }
}

constexpr ULONG kTracedPathTag = MakeTag("Zrtn");

/// The key's path as the tree has it, for a trace.
PoolBlock<UNICODE_STRING, kTracedPathTag> QueryTreePath(const DriverState& state, ZPK_NODE* node) {
    UNICODE_STRING size = {};
    if (ZPkDtGetName(state.KeyTree, node, &size) != STATUS_BUFFER_TOO_SMALL) {
        return {};
    }
    PoolBlock<UNICODE_STRING, kTracedPathTag> path(
        static_cast<PUNICODE_STRING>(ExAllocatePoolWithTag(
            PagedPool, sizeof(UNICODE_STRING) + size.MaximumLength, kTracedPathTag)));
    if (path) {
        *path = {0, size.MaximumLength, reinterpret_cast<PWSTR>(path.Get() + 1)};
        if (ZPkDtGetName(state.KeyTree, node, path.Get()) != STATUS_SUCCESS) {
            path.Reset();
        }
    }
    return path;
}

/// The verbose trace of a delete or rename, whose key the object manager can no longer name.
template <typename... Arguments>
void EmitGone(const DriverState& state, const PostOperation& post, const CapturedPath& captured,
              const char* message, const Arguments&... arguments) {
    PoolBlock<UNICODE_STRING, kTracedPathTag> treePath;
    const UNICODE_STRING* path = TextOf(captured);
    if (ZPK_NODE* node = ContextOf(post).Node(); node != nullptr) {
        treePath = QueryTreePath(state, node);
        path = treePath.Get();
    }
    if (path != nullptr) {
        trace_detail::Emit(TRACE_OPERATION, TRACE_LEVEL_INFORMATION, message,
                           PsGetCurrentProcessId(), post.Object, path, arguments...);
    }
}

void TraceDeletion(const DriverState& state, const PostOperation& post, const CapturedPath& path) {
    if (trace_detail::OperationTraced(operation::kDeleteKey)) [[unlikely]] {
        EmitGone(state, post, path, "process %p, key %p %Z: DeleteKey, status %x", post.Status);
    }
}

void TraceRename(const DriverState& state, const PostOperation& post, const CapturedPath& path) {
    if (trace_detail::OperationTraced(operation::kRenameKey)) [[unlikely]] {
        const CallerName newName(RequestOf<REG_RENAME_KEY_INFORMATION>(post).NewName);
        EmitGone(state, post, path, "process %p, key %p %Z: RenameKey to %Z, status %x",
                 &newName.Text(), post.Status);
    }
}

}  // namespace

bool NTAPI PreDeleteKey(PVOID notification, DriverState*) {
    auto& deletion = *static_cast<REG_DELETE_KEY_INFORMATION*>(notification);
    Capture(deletion.Object, *static_cast<KeyObjectContext*>(deletion.ObjectContext),
            deletion.CallContext);
    return false;
}

bool NTAPI KeyDeleted(PVOID notification, DriverState* state) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const CapturedPath path = TakeCapturedPath(post);
    TraceDeletion(*state, post, path);
    if (post.Status != STATUS_SUCCESS) {
        return false;
    }
    const bool recorded =
        Records(post, operation::kDeleteKey) &&
        WriteHeaderRecord(RecordType::kKeyDeleted, post, operation::kDeleteKey, TextOf(path));
    RemoveFromTree(*state, post, path);
    return recorded;
}

bool NTAPI PreRenameKey(PVOID notification, DriverState*) {
    auto& rename = *static_cast<REG_RENAME_KEY_INFORMATION*>(notification);
    Capture(rename.Object, *static_cast<KeyObjectContext*>(rename.ObjectContext),
            rename.CallContext);
    return false;
}

bool NTAPI KeyRenamed(PVOID notification, DriverState* state) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const CapturedPath path = TakeCapturedPath(post);
    TraceRename(*state, post, path);
    if (post.Status != STATUS_SUCCESS) {
        return false;
    }
    UNICODE_STRING newName;
    ReadString(RequestOf<REG_RENAME_KEY_INFORMATION>(post).NewName, newName);
    const bool recorded =
        Records(post, operation::kRenameKey) && WriteRenameRecord(post, newName, path);
    RenameInTree(*state, post, newName);
    return recorded;
}

bool NTAPI KeyFlushed(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    TraceKey(post, operation::kFlushKey, "FlushKey");
    return WriteHeaderRecord(RecordType::kKeyFlushed, post, operation::kFlushKey);
}

bool NTAPI KeyHandleClosed(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    TraceKey(post, operation::kKeyHandleClose, "KeyHandleClose");
    return WriteHeaderRecord(RecordType::kKeyHandleClosed, post, operation::kKeyHandleClose);
}

bool NTAPI KeyInformationSet(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const auto& set = RequestOf<REG_SET_INFORMATION_KEY_INFORMATION>(post);
    TraceOperation(post.Object, operation::kSetInformationKey,
                   "process %p, key %p %Z: SetInformationKey class %u", set.KeySetInformationClass);
    return WriteInformationRecord(RecordType::kKeyInformationSet, post,
                                  operation::kSetInformationKey,
                                  static_cast<ULONG>(set.KeySetInformationClass),
                                  set.KeySetInformation, set.KeySetInformationLength);
}

}  // namespace zpregflt
