// Interface of zpklib.sys, the kernel support library: process tracking, process exemptions and the
// key-name tree.
//
// Every function is called at PASSIVE_LEVEL on any number of threads at once; the library does its
// own locking and never waits for anything that a registry operation may hold. Handles, nodes and
// context blocks are opaque. A pointer "with a reference" is released exactly once by the party
// that got it, with the release function named beside it.
#pragma once

#include <ntdef.h>

struct ZPK_PROCESS_TRACKING;
struct ZPK_EXEMPTIONS;
struct ZPK_KEY_TREE;
struct ZPK_NODE;

/// The process already has a context of this registration.
inline constexpr NTSTATUS ZPK_STATUS_CONTEXT_EXISTS = static_cast<NTSTATUS>(0xE0010001);
/// The path's final node already exists.
inline constexpr NTSTATUS ZPK_STATUS_NODE_EXISTS = static_cast<NTSTATUS>(0xE0050001);

/// Bit of ProcessRecord::Flags: the process is trusted. These are the system process and processes
/// whose image path is listed in the TrustedImages value (REG_MULTI_SZ) of the library's service
/// key: an entry matches when it is the whole path or, following a backslash, its end, without
/// regard to case. The list is read when the library starts.
inline constexpr ULONG PROCESS_TRUSTED = 0x1;

/// Options of ProcessTrackingConfig: context blocks live until their process has ended.
inline constexpr ULONG ZPK_TRACK_UNTIL_EXIT = 1;
/// Second argument of ZPkPsSetContext: never replace a context that is there.
inline constexpr ULONG ZPK_SET_CONTEXT_KEEP_EXISTING = 1;
/// Second argument of ZPkDtInitialize: paths are compared without regard to case.
inline constexpr ULONG ZPK_TREE_IGNORE_CASE = 1;

using ZPK_CONTEXT_CLEANUP = void NTAPI(PVOID context);

struct ProcessTrackingConfig {
    ULONG Options;  ///< ZPK_TRACK_UNTIL_EXIT
    ULONG Reserved1;
    ZPK_CONTEXT_CLEANUP* ContextCleanup;  ///< called once with each block right before it is freed
    SIZE_T ContextSize;                   ///< bytes
    ULONG PoolTag;
    ULONG PoolType;
    ULONG64 Reserved2;
    ULONG64 Reserved3;
};
static_assert(sizeof(ProcessTrackingConfig) == 48 &&
              offsetof(ProcessTrackingConfig, ContextCleanup) == 8 &&
              offsetof(ProcessTrackingConfig, ContextSize) == 16 &&
              offsetof(ProcessTrackingConfig, PoolTag) == 24 &&
              offsetof(ProcessTrackingConfig, PoolType) == 28);

struct KeyTreeConfig {
    ULONG64 Reserved1;
    SIZE_T ContextSize;  ///< bytes
    ULONG PoolTag;
    ULONG PoolType;
    ULONG Reserved2;
};
static_assert(sizeof(KeyTreeConfig) == 32 && offsetof(KeyTreeConfig, ContextSize) == 8 &&
              offsetof(KeyTreeConfig, PoolTag) == 16 && offsetof(KeyTreeConfig, PoolType) == 20);

/// What the library knows of a process. Constant while a reference is held, also after the process
/// has ended. Members between the named ones are the library's own.
struct ProcessRecord {
    ULONG64 ProcessId;
    /// Tells processes apart for good: no two processes of one boot share it, whatever their ids.
    ULONG64 ProcessKey;
    UCHAR Reserved1[32];
    UNICODE_STRING ImagePath;
    UCHAR Reserved2[84];
    ULONG Flags;  ///< PROCESS_TRUSTED
};
static_assert(offsetof(ProcessRecord, ProcessKey) == 8 &&
              offsetof(ProcessRecord, ImagePath) == 48 && offsetof(ProcessRecord, Flags) == 148 &&
              sizeof(ProcessRecord) == 152);

/// One entry of an exemption list. A null member is absent; at least one of the first two is there.
/// An entry matches a process when every member that it carries matches:
struct ExemptionEntry {
    /// The image's file name (last component of its path), 8-bit characters, without regard to
    /// case.
    const ANSI_STRING* NarrowName;
    /// The image's file name or, when it contains a backslash, the end of the image's path from a
    /// backslash on (or the whole path), without regard to case. Empty: matches every process.
    const UNICODE_STRING* WideName1;
    /// 16 bytes: the process id and the ProcessKey of one process, both as little-endian 64-bit
    /// numbers: exempts that process and never one that is given its id later.
    const UCHAR* Identifier;
    /// The file name or path end, as WideName1, of the image of the process that created it. A
    /// process that is older than the library matches no entry that carries this, nor does one
    /// whose creator had ended before the library saw it.
    const UNICODE_STRING* WideName2;
};
static_assert(sizeof(ExemptionEntry) == 32);

extern "C" {

// --- Process tracking ----------------------------------------------------------------------------

/// Creates a registration under a GUID of the client's; STATUS_OBJECT_NAME_COLLISION when the GUID
/// is registered already, STATUS_INVALID_PARAMETER when the options are not ZPK_TRACK_UNTIL_EXIT.
NTSTATUS NTAPI ZPkPsRegister(const GUID* client, const ProcessTrackingConfig* config,
                             ZPK_PROCESS_TRACKING** tracking);
/// Ends the registration and passes every block that the library still holds to ContextCleanup;
/// returns when the last of these calls has, also of those that the end of a process makes. Not
/// inside ContextCleanup.
NTSTATUS NTAPI ZPkPsUnregister(ZPK_PROCESS_TRACKING* tracking);
/// Returns the record with a reference (ZPkPsRelease) and, when `context` is not null, this
/// registration's block of the process with a reference (ZPkPsReleaseContext), or null. On failure
/// both are null; STATUS_INVALID_CID: no such process, or its end has been notified.
NTSTATUS NTAPI ZPkPsGet(ZPK_PROCESS_TRACKING* tracking, HANDLE processId, ProcessRecord** record,
                        PVOID* context);
void NTAPI ZPkPsRelease(ProcessRecord* record);
/// A block with undefined contents and one reference, or null.
PVOID NTAPI ZPkPsAllocateContext(ZPK_PROCESS_TRACKING* tracking);
/// Makes the block, attached nowhere yet, the process's context; the library takes a reference of
/// its own and drops it when the process ends. ZPK_STATUS_CONTEXT_EXISTS: there was one, returned
/// with a reference in `existing`. STATUS_INVALID_CID as ZPkPsGet; nothing changes then.
NTSTATUS NTAPI ZPkPsSetContext(HANDLE processId, ULONG options, PVOID context, PVOID* existing);
/// The last reference passes the block to ContextCleanup, on this thread, and frees it.
void NTAPI ZPkPsReleaseContext(PVOID context);

// --- Exemptions ----------------------------------------------------------------------------------

/// An empty list; STATUS_OBJECT_NAME_COLLISION when there is one of this GUID.
NTSTATUS NTAPI ZPkPeExemptRegister(const GUID* list, ZPK_EXEMPTIONS** exemptions);
NTSTATUS NTAPI ZPkPeExemptUnregister(ZPK_EXEMPTIONS* exemptions);
/// Copies the entry. STATUS_OBJECT_NAME_COLLISION when an equal entry is in the list,
/// STATUS_INVALID_PARAMETER when it carries neither of the first two members.
NTSTATUS NTAPI ZPkPeExemptAdd1(ZPK_EXEMPTIONS* exemptions, const ExemptionEntry* entry);
/// Removes the entry with the same members (names compared without regard to case);
/// STATUS_NOT_FOUND when there is none.
NTSTATUS NTAPI ZPkPeExemptRemove1(ZPK_EXEMPTIONS* exemptions, const ExemptionEntry* entry);
NTSTATUS NTAPI ZPkPeExemptRemoveAll(ZPK_EXEMPTIONS* exemptions);
/// TRUE when the process matches an entry; fails as ZPkPsGet, with FALSE.
NTSTATUS NTAPI ZPkPeExemptCheck(ZPK_EXEMPTIONS* exemptions, HANDLE processId, PBOOLEAN exempt);

// --- Key-name tree -------------------------------------------------------------------------------
//
// One node a key path, without regard to case; a node keeps the spelling that it was made with.
// Paths are components separated by backslashes; repeated, leading and trailing ones do not count.
//
// A node stays in the tree when its last reference is released, with its context block. Only when
// the tree holds very many nodes do some leaves that nobody references or asks for leave it. So a
// node's address tells nodes apart only while a reference is held: a later node may be given the
// address of one that is gone.

NTSTATUS NTAPI ZPkDtInitialize(const KeyTreeConfig* config, ULONG options, ZPK_KEY_TREE** tree);
/// Every node and context reference must have been released.
NTSTATUS NTAPI ZPkDtDestroy(ZPK_KEY_TREE* tree);
/// TRUE: a leading part of the path (one or more whole components) is in the tree; the node of the
/// longest such part is returned with a reference (ZPkDtReleaseNode), its block with a reference
/// (ZPkDtReleaseContext) or null, and `path` describes what of the same buffer was not matched
/// (length 0: nothing).
/// FALSE: nothing matched; both outputs are null and `path` is unchanged.
BOOLEAN NTAPI ZPkDtLookup(ZPK_KEY_TREE* tree, PUNICODE_STRING path, ZPK_NODE** node,
                          PVOID* context);
/// Adds the path's nodes below `*node` (the root when null; the reference is taken over) and
/// attaches the block to the last one, which takes its own reference on it. `*node` becomes the
/// last node with a reference. ZPK_STATUS_NODE_EXISTS: that node was there; the block is not
/// attached. On another failure `*node` is null and the tree is unchanged: no component at all
/// (STATUS_INVALID_PARAMETER), a path beyond 65,534 bytes (STATUS_NAME_TOO_LONG), no memory. Below
/// a node that has left the tree the whole path is made anew.
NTSTATUS NTAPI ZPkDtInsert(ZPK_KEY_TREE* tree, PCUNICODE_STRING path, PVOID context,
                           ZPK_NODE** node);
void NTAPI ZPkDtReleaseNode(ZPK_KEY_TREE* tree, ZPK_NODE* node);
/// A block with undefined contents and one reference, or null. `reserved` is 0.
PVOID NTAPI ZPkDtAllocateContext(ZPK_KEY_TREE* tree, ULONG reserved);
void NTAPI ZPkDtReleaseContext(PVOID context);
/// The node's block with a reference, or null.
PVOID NTAPI ZPkDtGetContext(ZPK_KEY_TREE* tree, ZPK_NODE* node);
/// TRUE: the node had no block and now refers to this one. FALSE: it had one; nothing changes.
BOOLEAN NTAPI ZPkDtInsertContext(ZPK_KEY_TREE* tree, ZPK_NODE* node, PVOID context);
/// Takes the node (and what is below it) out of the tree; references on it stay good, and so does
/// its name. A later insertion of the path makes a new node. STATUS_NOT_FOUND: the node was not in
/// the tree any more. `reserved` is null.
NTSTATUS NTAPI ZPkDtDelete(ZPK_KEY_TREE* tree, PVOID reserved, ZPK_NODE* node);
/// Writes the node's full path without a terminator. STATUS_BUFFER_TOO_SMALL sets the maximum
/// length to the bytes needed. Takes no lock that is held while a context block is in use.
NTSTATUS NTAPI ZPkDtGetName(ZPK_KEY_TREE* tree, ZPK_NODE* node, PUNICODE_STRING name);
/// Gives the node, and with it the paths of all nodes below, a new last component. `*node` stays
/// the same node, whose other users see the new path. A node that has the new path already is taken
/// for one of a key that is gone and leaves the tree as by ZPkDtDelete.
/// Nothing changes on failure: STATUS_OBJECT_NAME_INVALID (no name, or one with a backslash),
/// STATUS_NAME_TOO_LONG (a path would exceed 65,534 bytes), no memory.
NTSTATUS NTAPI ZPkDtRename(ZPK_KEY_TREE* tree, PCUNICODE_STRING newName, ZPK_NODE** node);

}  // extern "C"
