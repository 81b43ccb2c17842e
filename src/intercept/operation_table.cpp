#include "intercept/operation_table.h"

#include "channel/value_records.h"
#include "intercept/key_context.h"
#include "intercept/legacy_classes.h"
#include "records/hive_records.h"
#include "records/key_lifetime.h"
#include "records/query_records.h"
#include "records/security_records.h"

namespace zpregflt {

namespace {

// The gates that rows have.
constexpr ULONG kDirect = OP_FLAG_DIRECT;
constexpr ULONG kCreated = OP_FLAG_SUCCESS;
constexpr ULONG kContext = OP_FLAG_CONTEXT;
constexpr ULONG kJudged = OP_FLAG_CONTEXT | OP_FLAG_POLICY | OP_FLAG_KEY_ENTRY;
constexpr ULONG kUnjudged = OP_FLAG_CONTEXT | OP_FLAG_SUCCESS | OP_FLAG_KEY_ENTRY;
constexpr ULONG kRecorded = kJudged | OP_FLAG_SUCCESS;
constexpr ULONG kOnAnyThread = kRecorded | OP_FLAG_SYSTEM;

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
constexpr ULONG64 kSetSecurity = offsetof(REG_SET_KEY_SECURITY_INFORMATION, ObjectContext);

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
    /* 20 */ Handled("RegNtPostEnumerateKey", kRecorded, operation::kEnumerateKey, kPost, SubkeyEnumerated),
    /* 21 */ Handled("RegNtPostEnumerateValueKey", kRecorded, operation::kEnumerateValueKey, kPost, ValueEnumerated),
    /* 22 */ Handled("RegNtPostQueryKey", kRecorded, operation::kQueryKey, kPost, KeyQueried),
    /* 23 */ Handled("RegNtPostQueryValueKey", kRecorded, operation::kQueryValueKey, kPost, ValueQueried),
    /* 24 */ Handled("RegNtPostQueryMultipleValueKey", kRecorded, operation::kQueryMultipleValueKey, kPost, ValuesQueried),
    /* 25 */ Handled("RegNtPostKeyHandleClose", kRecorded, operation::kKeyHandleClose, kPost, KeyHandleClosed),
    /* 26 */ Unhandled("RegNtPreCreateKeyEx"),
    /* 27 */ Handled("RegNtPostCreateKeyEx", kCreated, operation::kCreateKeyEx, 0, KeyCreated),
    /* 28 */ Unhandled("RegNtPreOpenKeyEx"),
    /* 29 */ Handled("RegNtPostOpenKeyEx", kCreated, operation::kOpenKeyEx, 0, KeyOpened),
    /* 30 */ Unhandled("RegNtPreFlushKey"),
    /* 31 */ Handled("RegNtPostFlushKey", kRecorded, operation::kFlushKey, kPost, KeyFlushed),
    /* 32 */ Unhandled("RegNtPreLoadKey"),
    /* 33 */ Handled("RegNtPostLoadKey", kRecorded, operation::kLoadKey, kPost, HiveLoaded),
    /* 34 */ Unhandled("RegNtPreUnLoadKey"),
    /* 35 */ Handled("RegNtPostUnLoadKey", kRecorded, operation::kUnLoadKey, kPost, HiveUnloaded),
    /* 36 */ Unhandled("RegNtPreQueryKeySecurity"),
    /* 37 */ Handled("RegNtPostQueryKeySecurity", kRecorded, operation::kQueryKeySecurity, kPost, KeySecurityQueried),
    /* 38 */ Handled("RegNtPreSetKeySecurity", kJudged, operation::kSetKeySecurity, kSetSecurity, PreSetKeySecurity),
    /* 39 */ Handled("RegNtPostSetKeySecurity", kJudged, operation::kSetKeySecurity, kPost, KeySecuritySet),
    /* 40 */ Handled("RegNtCallbackObjectContextCleanup", kDirect, 0, 0, ReleaseKeyContext),
    /* 41 */ Unhandled("RegNtPreRestoreKey"),
    /* 42 */ Handled("RegNtPostRestoreKey", kOnAnyThread, operation::kRestoreKey, kPost, KeyRestored),
    /* 43 */ Unhandled("RegNtPreSaveKey"),
    /* 44 */ Handled("RegNtPostSaveKey", kOnAnyThread, operation::kSaveKey, kPost, KeySaved),
    /* 45 */ Unhandled("RegNtPreReplaceKey"),
    /* 46 */ Handled("RegNtPostReplaceKey", kOnAnyThread, operation::kReplaceKey, kPost, KeyReplaced),
    /* 47 */ Unhandled("RegNtPreQueryKeyName"),
    /* 48 */ Handled("RegNtPostQueryKeyName", kRecorded, operation::kQueryKeyName, kPost, KeyNameQueried),
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
