#include "records/security_records.h"

#include "intercept/operation_trace.h"
#include "records/caller_memory.h"
#include "records/post_operation.h"
#include "records/record_size.h"
#include "records/record_writer.h"
#include "records/security_change.h"
#include "records/sid_text.h"

namespace zpregflt {

namespace {

/// A copy of an object's security descriptor, on loan from the object manager.
class [[nodiscard]] ObjectSecurity {
public:
    /// None when the object manager does not give one. PASSIVE_LEVEL.
    static ObjectSecurity Of(PVOID object) {
        PSECURITY_DESCRIPTOR descriptor = nullptr;
        BOOLEAN allocated = FALSE;
        if (!NT_SUCCESS(ObGetObjectSecurity(object, &descriptor, &allocated))) {
            descriptor = nullptr;
        }
        return ObjectSecurity(descriptor, allocated);
    }
    /// Takes over what Detach put into a call context.
    static ObjectSecurity FromCallContext(PVOID callContext) {
        const auto word = reinterpret_cast<ULONG_PTR>(callContext);
        return ObjectSecurity(reinterpret_cast<PSECURITY_DESCRIPTOR>(word & ~kAllocated),
                              (word & kAllocated) != 0);
    }
    ~ObjectSecurity() {
        if (descriptor_ != nullptr) {
            ObReleaseObjectSecurity(descriptor_, allocated_);
        }
    }
    ObjectSecurity(const ObjectSecurity&) = delete;
    ObjectSecurity& operator=(const ObjectSecurity&) = delete;

    explicit operator bool() const { return descriptor_ != nullptr; }
    PSECURITY_DESCRIPTOR Get() const { return descriptor_; }
    /// Moves the loan into one word; null for none.
    PVOID Detach() {
        const auto address = reinterpret_cast<ULONG_PTR>(std::exchange(descriptor_, nullptr));
        return reinterpret_cast<PVOID>(address != 0 && allocated_ ? address | kAllocated : address);
    }

private:
    /// Descriptors are 2-byte aligned at least.
    static constexpr ULONG_PTR kAllocated = 1;

    ObjectSecurity(PSECURITY_DESCRIPTOR descriptor, BOOLEAN allocated)
        : descriptor_(descriptor), allocated_(allocated) {}

    PSECURITY_DESCRIPTOR descriptor_;
    BOOLEAN allocated_;
};

ULONG SectionSize(const SecurityPart& part) {
    return sizeof(SecuritySection) + part.OldLength + part.NewLength;
}

/// The sections of one record.
struct SecurityLayout {
    USHORT offsets[kSecurityPartCount];  ///< 0: none
    ULONG size;
    ULONG end;  ///< the first part that is left for another record
};

/// Lays out the parts that changed from `first` on, as far as a record can say where they are.
///
/// A section's offset has 16 bits. Identifiers are short, so only the SACL's section can come to
/// lie beyond that, behind a DACL's of two lists of tens of kilobytes. It then goes into a record
/// of its own, as though the two lists had been set one after the other: both changes are told, and
/// every state that the records tell of is one that the key's parts had. To leave the part out
/// would say that it did not change, and to leave out the record would let a caller hide a change
/// behind the size of its lists.
SecurityLayout LayOut(const SecurityChanges& changes, ULONG first) {
    constexpr ULONG kLastOffset = 0xFFFF;
    SecurityLayout layout = {};
    layout.size = sizeof(KeySecuritySetRecord);
    ULONG part = first;
    for (; part < kSecurityPartCount; ++part) {
        if (changes.Parts[part].Old == nullptr) {
            continue;
        }
        if (layout.size > kLastOffset) {
            break;
        }
        layout.offsets[part] = static_cast<USHORT>(layout.size);
        layout.size += SectionSize(changes.Parts[part]);
    }
    layout.end = part;
    return layout;
}

void WriteSection(UCHAR* at, const SecurityPart& part) {
    const SecuritySection section = {part.OldLength, part.NewLength};
    RtlCopyMemory(at, &section, sizeof(section));
    at += sizeof(section);
    RtlCopyMemory(at, part.Old, part.OldLength);
    RtlCopyMemory(at + part.OldLength, part.New, part.NewLength);
}

bool WriteRecord(const PostOperation& post, const SecurityChanges& changes,
                 const SecurityLayout& layout) {
    const RecordWriter<KeySecuritySetRecord> record(RecordType::kKeySecuritySet, post.Object,
                                                    ContextOf(post), operation::kSetKeySecurity,
                                                    RecordSize(layout.size));
    if (!record) {
        return false;
    }
    record->OwnerOffset = layout.offsets[kOwnerPart];
    record->GroupOffset = layout.offsets[kGroupPart];
    record->DaclOffset = layout.offsets[kDaclPart];
    record->SaclOffset = layout.offsets[kSaclPart];
    for (ULONG part = 0; part < kSecurityPartCount; ++part) {
        if (layout.offsets[part] != 0) {
            WriteSection(record.At(layout.offsets[part]), changes.Parts[part]);
        }
    }
    return true;
}

bool Changed(const SecurityChanges& changes) {
    for (const SecurityPart& part : changes.Parts) {
        if (part.Old != nullptr) {
            return true;
        }
    }
    return false;
}

void TraceSids(const PostOperation& post, const char* label, const SecurityPart& part) {
    if (part.Old != nullptr) {
        const SidText before(part.Old);
        const SidText after(part.New);
        trace_detail::EmitOperation(post.Object, "process %p, key %p %Z: %s from %s to %s", label,
                                    before.Text(), after.Text());
    }
}

void TraceAcls(const PostOperation& post, const char* label, const SecurityPart& part) {
    if (part.Old != nullptr) {
        trace_detail::EmitOperation(post.Object, "process %p, key %p %Z: %s changed", label);
    }
}

void TraceChanges(const PostOperation& post, const SecurityChanges& changes) {
    if (trace_detail::OperationTraced(operation::kSetKeySecurity)) [[unlikely]] {
        TraceSids(post, "owner", changes.Parts[kOwnerPart]);
        TraceSids(post, "group", changes.Parts[kGroupPart]);
        TraceAcls(post, "DACL", changes.Parts[kDaclPart]);
        TraceAcls(post, "SACL", changes.Parts[kSaclPart]);
    }
}

}  // namespace

bool NTAPI PreSetKeySecurity(PVOID notification, DriverState*) {
    auto& request = *static_cast<REG_SET_KEY_SECURITY_INFORMATION*>(notification);
    request.CallContext = ObjectSecurity::Of(request.Object).Detach();
    return false;
}

bool NTAPI KeySecuritySet(PVOID notification, DriverState*) {
    const auto& post = *static_cast<const PostOperation*>(notification);
    const ObjectSecurity before = ObjectSecurity::FromCallContext(post.CallContext);
    if (!before || post.Status != STATUS_SUCCESS) {
        return false;
    }
    const ObjectSecurity after = ObjectSecurity::Of(post.Object);
    if (!after) {
        return false;
    }
    SECURITY_INFORMATION requested = 0;
    ReadCaller(RequestOf<REG_SET_KEY_SECURITY_INFORMATION>(post).SecurityInformation, requested);
    const SecurityChanges changes = CompareSecurity(before.Get(), after.Get(), requested);
    if (!Changed(changes)) {
        return false;
    }
    TraceChanges(post, changes);
    bool recorded = false;
    for (ULONG part = 0; part < kSecurityPartCount;) {
        const SecurityLayout layout = LayOut(changes, part);
        recorded = WriteRecord(post, changes, layout) || recorded;
        part = layout.end;
    }
    return recorded;
}

}  // namespace zpregflt
