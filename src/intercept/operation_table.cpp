#include "intercept/operation_table.h"

#include "channel/value_records.h"
#include "intercept/key_context.h"
#include "intercept/legacy_classes.h"
#include "records/key_lifetime.h"

namespace zpregflt {

namespace {

// The gates that rows have.
constexpr ULONG kDirect = OP_FLAG_DIRECT;
constexpr ULONG kCreated = OP_FLAG_SUCCESS;
constexpr ULONG kContext = OP_FLAG_CONTEXT;
constexpr ULONG kJudged = OP_FLAG_CONTEXT | OP_FLAG_POLICY | OP_FLAG_KEY_ENTRY;
constexpr ULONG kUnjudged = OP_FLAG_CONTEXT | OP_FLAG_SUCCESS | OP_FLAG_KEY_ENTRY;
constexpr ULONG kRecorded = kJudged | OP_FLAG_SUCCESS;

/// The policy and key-entry gates read the object context, so they need the gate that tests it.
constexpr bool GatesAreConsistent(ULONG flags) {
    return (flags & (OP_FLAG_POLICY | OP_FLAG_KEY_ENTRY)) == 0 || (flags & OP_FLAG_CONTEXT) != 0;
}
static_assert(GatesAreConsistent(kJudged) && GatesAreConsistent(kUnjudged));

// Where the structures hold the object context.
constexpr ULONG64 kPost = offsetof(REG_POST_OPERATION_INFORMATION, ObjectContext);
constexpr ULONG64 kDelete = offsetof(REG_DELETE_KEY_INFORMATION, ObjectContext);
constexpr ULONG64 kSetValue = offsetof(REG_SET_VALUE_KEY_INFORMATION, ObjectContext);
constexpr ULONG64 kRename = offsetof(REG_RENAME_KEY_INFORMATION, ObjectContext);

constexpr OperationEntry Unhandled(const char* name) {
    return {nullptr, 0, 0, 0, 0, name, 0, 0, 0, 0};
}

constexpr OperationEntry Handled(const char* name, ULONG flags, OperationMask mask,
                                 ULONG64 objectContextOffset, OperationHandler* handler) {
    return {handler, flags, mask, 0, objectContextOffset, name, 0, 0, 0, 0};
}

}  // namespace

// clang-format off
constinit OperationEntry OperationTable[kOperationClassCount] = {
    /*  0 */ Handled("RegNtPreDeleteKey", kContext, operation::kDeleteKey, kDelete, PreDeleteKey),
    /*  1 */ Handled("RegNtPreSetValueKey", kJudged, operation::kSetValueKey, kSetValue, PreSetValue),
    /*  2 */ Unhandled("RegNtPreDeleteValueKey"),
    /*  3 */ Unhandled("RegNtPreSetInformationKey"),
    /*  4 */ Handled("RegNtPreRenameKey", kContext, operation::kRenameKey, kRename, PreRenameKey),
    /*  5 */ Unhandled("RegNtPreEnumerateKey"),
    /*  6 */ Unhandled("RegNtPreEnumerateValueKey"),
    /*  7 */ Unhandled("RegNtPreQueryKey"),
    /*  8 */ Unhandled("RegNtPreQueryValueKey"),
    /*  9 */ Unhandled("RegNtPreQueryMultipleValueKey"),
    /* 10 */ Unhandled("RegNtPreCreateKey"),
    /* 11 */ Handled("RegNtPostCreateKey", kDirect, 0, 0, HaltOnLegacyClass),
    /* 12 */ Unhandled("RegNtPreOpenKey"),
    /* 13 */ Handled("RegNtPostOpenKey", kDirect, 0, 0, HaltOnLegacyClass),
    /* 14 */ Unhandled("RegNtPreKeyHandleClose"),
    /* 15 */ Handled("RegNtPostDeleteKey", kContext, operation::kDeleteKey, kPost, KeyDeleted),
    /* 16 */ Handled("RegNtPostSetValueKey", kJudged, operation::kSetValueKey, kPost, ValueSet),
    /* 17 */ Handled("RegNtPostDeleteValueKey", kUnjudged, operation::kDeleteValueKey, kPost, ValueDeleted),
    /* 18 */ Handled("RegNtPostSetInformationKey", kRecorded, operation::kSetInformationKey, kPost, KeyInformationSet),
    /* 19 */ Handled("RegNtPostRenameKey", kContext, operation::kRenameKey, kPost, KeyRenamed),
    /* 20 */ Unhandled("RegNtPostEnumerateKey"),
    /* 21 */ Unhandled("RegNtPostEnumerateValueKey"),
    /* 22 */ Unhandled("RegNtPostQueryKey"),
    /* 23 */ Unhandled("RegNtPostQueryValueKey"),
    /* 24 */ Unhandled("RegNtPostQueryMultipleValueKey"),
    /* 25 */ Handled("RegNtPostKeyHandleClose", kRecorded, operation::kKeyHandleClose, kPost, KeyHandleClosed),
    /* 26 */ Unhandled("RegNtPreCreateKeyEx"),
    /* 27 */ Handled("RegNtPostCreateKeyEx", kCreated, operation::kCreateKeyEx, 0, KeyCreated),
    /* 28 */ Unhandled("RegNtPreOpenKeyEx"),
    /* 29 */ Handled("RegNtPostOpenKeyEx", kCreated, operation::kOpenKeyEx, 0, KeyOpened),
    /* 30 */ Unhandled("RegNtPreFlushKey"),
    /* 31 */ Handled("RegNtPostFlushKey", kRecorded, operation::kFlushKey, kPost, KeyFlushed),
    /* 32 */ Unhandled("RegNtPreLoadKey"),
    /* 33 */ Unhandled("RegNtPostLoadKey"),
    /* 34 */ Unhandled("RegNtPreUnLoadKey"),
    /* 35 */ Unhandled("RegNtPostUnLoadKey"),
    /* 36 */ Unhandled("RegNtPreQueryKeySecurity"),
    /* 37 */ Unhandled("RegNtPostQueryKeySecurity"),
    /* 38 */ Unhandled("RegNtPreSetKeySecurity"),
    /* 39 */ Unhandled("RegNtPostSetKeySecurity"),
    /* 40 */ Handled("RegNtCallbackObjectContextCleanup", kDirect, 0, 0, ReleaseKeyContext),
    /* 41 */ Unhandled("RegNtPreRestoreKey"),
    /* 42 */ Unhandled("RegNtPostRestoreKey"),
    /* 43 */ Unhandled("RegNtPreSaveKey"),
    /* 44 */ Unhandled("RegNtPostSaveKey"),
    /* 45 */ Unhandled("RegNtPreReplaceKey"),
    /* 46 */ Unhandled("RegNtPostReplaceKey"),
    /* 47 */ Unhandled("RegNtPreQueryKeyName"),
    /* 48 */ Unhandled("RegNtPostQueryKeyName"),
};
// clang-format on

void ClearOperationCounters() {
    for (OperationEntry& row : OperationTable) {
        row.Hit = 0;
        row.Fail = 0;
        row.Filter = 0;
        row.Log = 0;
    }
}

}  // namespace zpregflt
