// The kernel's executive as drivers see it: memory, locks, objects, input and output, tracing.
//
// Every function states the highest IRQL at which it may be called. On Linux the platform checks
// it.
#pragma once

#include "interlocked.h"
#include "ntdef.h"
#include "ntstatus.h"

// Opaque kernel objects.
struct EPROCESS;
struct ETHREAD;
struct OBJECT_TYPE;
using PEPROCESS = EPROCESS*;
using PETHREAD = ETHREAD*;
using POBJECT_TYPE = OBJECT_TYPE*;

// --- Lists ---------------------------------------------------------------------------------------

[[noreturn]] inline void RtlFailFastCorruptListEntry() {
    __builtin_trap();
}

inline void InitializeListHead(PLIST_ENTRY head) {
    head->Flink = head->Blink = head;
}
inline bool IsListEmpty(const LIST_ENTRY* head) {
    return head->Flink == head;
}
/// Unlinks the entry; stops the system when the neighbouring links are inconsistent.
inline void RemoveEntryList(PLIST_ENTRY entry) {
    PLIST_ENTRY next = entry->Flink;
    PLIST_ENTRY previous = entry->Blink;
    if (next->Blink != entry || previous->Flink != entry) {
        RtlFailFastCorruptListEntry();
    }
    previous->Flink = next;
    next->Blink = previous;
}
/// Inserts the entry directly after `position`, which may be a list head.
inline void InsertHeadList(PLIST_ENTRY position, PLIST_ENTRY entry) {
    PLIST_ENTRY next = position->Flink;
    if (next->Blink != position) {
        RtlFailFastCorruptListEntry();
    }
    entry->Flink = next;
    entry->Blink = position;
    next->Blink = entry;
    position->Flink = entry;
}
/// Inserts the entry directly before `position`, which may be a list head.
inline void InsertTailList(PLIST_ENTRY position, PLIST_ENTRY entry) {
    PLIST_ENTRY previous = position->Blink;
    if (previous->Flink != position) {
        RtlFailFastCorruptListEntry();
    }
    entry->Flink = position;
    entry->Blink = previous;
    previous->Flink = entry;
    position->Blink = entry;
}
/// Removes and returns the first entry; the list must not be empty.
inline PLIST_ENTRY RemoveHeadList(PLIST_ENTRY head) {
    PLIST_ENTRY entry = head->Flink;
    RemoveEntryList(entry);
    return entry;
}

struct alignas(16) SLIST_ENTRY {
    SLIST_ENTRY* Next;
};
using PSLIST_ENTRY = SLIST_ENTRY*;

struct alignas(16) SLIST_HEADER {
    ULONGLONG Alignment;
    ULONGLONG Region;
};
using PSLIST_HEADER = SLIST_HEADER*;
static_assert(sizeof(SLIST_HEADER) == 16 && sizeof(SLIST_ENTRY) == 16);

// --- Locks ---------------------------------------------------------------------------------------

using KSPIN_LOCK = ULONG_PTR;
using PKSPIN_LOCK = KSPIN_LOCK*;

struct KSPIN_LOCK_QUEUE {
    KSPIN_LOCK_QUEUE* volatile Next;
    PKSPIN_LOCK volatile Lock;
};

struct KLOCK_QUEUE_HANDLE {
    KSPIN_LOCK_QUEUE LockQueue;
    KIRQL OldIrql;
};
using PKLOCK_QUEUE_HANDLE = KLOCK_QUEUE_HANDLE*;
static_assert(sizeof(KLOCK_QUEUE_HANDLE) == 24 && offsetof(KLOCK_QUEUE_HANDLE, OldIrql) == 16);

struct DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Absolute;
    UCHAR Size;
    UCHAR Inserted;
    LONG SignalState;
    LIST_ENTRY WaitListHead;
};

struct KEVENT {
    DISPATCHER_HEADER Header;
};
using PKEVENT = KEVENT*;
static_assert(sizeof(KEVENT) == 24);

enum EVENT_TYPE : int { NotificationEvent = 0, SynchronizationEvent = 1 };

struct KGATE {
    DISPATCHER_HEADER Header;
};

/// Exclusive lock for IRQL <= APC_LEVEL; the holder gets no APC. Not recursive.
struct KGUARDED_MUTEX {
    LONG Count;
    PVOID Owner;
    ULONG Contention;
    KGATE Gate;
    union {
        struct {
            SHORT KernelApcDisable;
            SHORT SpecialApcDisable;
        } s;
        ULONG CombinedApcDisable;
    } u;
};
using PKGUARDED_MUTEX = KGUARDED_MUTEX*;
static_assert(sizeof(KGUARDED_MUTEX) == 56 && offsetof(KGUARDED_MUTEX, Gate) == 24);

struct EX_RUNDOWN_REF {
    ULONG_PTR Count;
};
using PEX_RUNDOWN_REF = EX_RUNDOWN_REF*;

// --- Memory --------------------------------------------------------------------------------------

enum POOL_TYPE : int {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolNx = 0x200,
};
inline constexpr ULONG POOL_NX_ALLOCATION = 0x200;

using PALLOCATE_FUNCTION = PVOID(NTAPI*)(POOL_TYPE, SIZE_T, ULONG);
using PFREE_FUNCTION = void(NTAPI*)(PVOID);

struct alignas(64) GENERAL_LOOKASIDE {
    SLIST_HEADER ListHead;
    USHORT Depth;
    USHORT MaximumDepth;
    ULONG TotalAllocates;
    ULONG AllocateMisses;
    ULONG TotalFrees;
    ULONG FreeMisses;
    POOL_TYPE Type;
    ULONG Tag;
    ULONG Size;
    PALLOCATE_FUNCTION Allocate;
    PFREE_FUNCTION Free;
    LIST_ENTRY ListEntry;
    ULONG LastTotalAllocates;
    ULONG LastAllocateMisses;
    ULONG Future[2];
};
static_assert(sizeof(GENERAL_LOOKASIDE) == 128 && offsetof(GENERAL_LOOKASIDE, Size) == 44 &&
              offsetof(GENERAL_LOOKASIDE, Allocate) == 48 &&
              offsetof(GENERAL_LOOKASIDE, ListEntry) == 64);

struct NPAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
};
using PNPAGED_LOOKASIDE_LIST = NPAGED_LOOKASIDE_LIST*;

struct PAGED_LOOKASIDE_LIST {
    GENERAL_LOOKASIDE L;
};
using PPAGED_LOOKASIDE_LIST = PAGED_LOOKASIDE_LIST*;
static_assert(sizeof(NPAGED_LOOKASIDE_LIST) == 128 && sizeof(PAGED_LOOKASIDE_LIST) == 128);

// --- Objects and names ---------------------------------------------------------------------------

struct OBJECT_NAME_INFORMATION {
    UNICODE_STRING Name;
};
using POBJECT_NAME_INFORMATION = OBJECT_NAME_INFORMATION*;
static_assert(sizeof(OBJECT_NAME_INFORMATION) == 16);

struct OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
};
using POBJECT_HANDLE_INFORMATION = OBJECT_HANDLE_INFORMATION*;

inline constexpr ACCESS_MASK DELETE_ACCESS = 0x00010000;
inline constexpr ACCESS_MASK READ_CONTROL = 0x00020000;
inline constexpr ACCESS_MASK WRITE_DAC = 0x00040000;
inline constexpr ACCESS_MASK WRITE_OWNER = 0x00080000;
inline constexpr ACCESS_MASK SYNCHRONIZE = 0x00100000;
inline constexpr ACCESS_MASK STANDARD_RIGHTS_REQUIRED = 0x000F0000;
inline constexpr ACCESS_MASK ACCESS_SYSTEM_SECURITY = 0x01000000;
inline constexpr ACCESS_MASK MAXIMUM_ALLOWED = 0x02000000;
inline constexpr ACCESS_MASK GENERIC_ALL = 0x10000000;
inline constexpr ACCESS_MASK GENERIC_EXECUTE = 0x20000000;
inline constexpr ACCESS_MASK GENERIC_WRITE = 0x40000000;
inline constexpr ACCESS_MASK GENERIC_READ = 0x80000000;

inline constexpr ACCESS_MASK FILE_READ_DATA = 0x1;
inline constexpr ACCESS_MASK FILE_WRITE_DATA = 0x2;
inline constexpr ACCESS_MASK FILE_APPEND_DATA = 0x4;
inline constexpr ACCESS_MASK FILE_GENERIC_READ = 0x00120089;
inline constexpr ACCESS_MASK FILE_GENERIC_WRITE = 0x00120116;
inline constexpr ACCESS_MASK FILE_GENERIC_EXECUTE = 0x001200A0;
inline constexpr ACCESS_MASK FILE_ALL_ACCESS = 0x001F01FF;

// --- Input and output ----------------------------------------------------------------------------

struct DRIVER_OBJECT;
struct DEVICE_OBJECT;
struct IRP;
using PDRIVER_OBJECT = DRIVER_OBJECT*;
using PDEVICE_OBJECT = DEVICE_OBJECT*;
using PIRP = IRP*;

struct IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
};
using PIO_STATUS_BLOCK = IO_STATUS_BLOCK*;
static_assert(sizeof(IO_STATUS_BLOCK) == 16);

inline constexpr UCHAR IRP_MJ_CREATE = 0x00;
inline constexpr UCHAR IRP_MJ_CLOSE = 0x02;
inline constexpr UCHAR IRP_MJ_READ = 0x03;
inline constexpr UCHAR IRP_MJ_WRITE = 0x04;
inline constexpr UCHAR IRP_MJ_DEVICE_CONTROL = 0x0E;
inline constexpr UCHAR IRP_MJ_INTERNAL_DEVICE_CONTROL = 0x0F;
inline constexpr UCHAR IRP_MJ_SHUTDOWN = 0x10;
inline constexpr UCHAR IRP_MJ_CLEANUP = 0x12;
inline constexpr UCHAR IRP_MJ_MAXIMUM_FUNCTION = 0x1B;

using DRIVER_INITIALIZE = NTSTATUS NTAPI(PDRIVER_OBJECT, PUNICODE_STRING);
using DRIVER_UNLOAD = void NTAPI(PDRIVER_OBJECT);
using DRIVER_DISPATCH = NTSTATUS NTAPI(PDEVICE_OBJECT, PIRP);
using DRIVER_ADD_DEVICE = NTSTATUS NTAPI(PDRIVER_OBJECT, PDEVICE_OBJECT);

struct DRIVER_EXTENSION {
    PDRIVER_OBJECT DriverObject;
    DRIVER_ADD_DEVICE* AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
};

struct DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    DRIVER_EXTENSION* DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    DRIVER_INITIALIZE* DriverInit;
    PVOID DriverStartIo;
    DRIVER_UNLOAD* DriverUnload;
    DRIVER_DISPATCH* MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
};
static_assert(sizeof(DRIVER_OBJECT) == 336 && offsetof(DRIVER_OBJECT, DriverExtension) == 48 &&
              offsetof(DRIVER_OBJECT, DriverUnload) == 104 &&
              offsetof(DRIVER_OBJECT, MajorFunction) == 112);

inline constexpr DEVICE_TYPE FILE_DEVICE_UNKNOWN = 0x22;
inline constexpr ULONG METHOD_BUFFERED = 0;
inline constexpr ULONG METHOD_IN_DIRECT = 1;
inline constexpr ULONG METHOD_OUT_DIRECT = 2;
inline constexpr ULONG METHOD_NEITHER = 3;
inline constexpr ULONG FILE_ANY_ACCESS = 0;
inline constexpr ULONG FILE_READ_ACCESS = 1;
inline constexpr ULONG FILE_WRITE_ACCESS = 2;

// --- Tracing -------------------------------------------------------------------------------------

using REGHANDLE = ULONGLONG;
using PREGHANDLE = REGHANDLE*;

struct EVENT_DESCRIPTOR {
    USHORT Id;
    UCHAR Version;
    UCHAR Channel;
    UCHAR Level;
    UCHAR Opcode;
    USHORT Task;
    ULONGLONG Keyword;
};
using PCEVENT_DESCRIPTOR = const EVENT_DESCRIPTOR*;
static_assert(sizeof(EVENT_DESCRIPTOR) == 16 && offsetof(EVENT_DESCRIPTOR, Keyword) == 8);

struct EVENT_DATA_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Reserved;
};
using PEVENT_DATA_DESCRIPTOR = EVENT_DATA_DESCRIPTOR*;
static_assert(sizeof(EVENT_DATA_DESCRIPTOR) == 16);

inline constexpr ULONG EVENT_CONTROL_CODE_DISABLE_PROVIDER = 0;
inline constexpr ULONG EVENT_CONTROL_CODE_ENABLE_PROVIDER = 1;
inline constexpr ULONG EVENT_CONTROL_CODE_CAPTURE_STATE = 2;

using ETWENABLECALLBACK = void NTAPI(LPCGUID sourceId, ULONG controlCode, UCHAR level,
                                     ULONGLONG matchAnyKeyword, ULONGLONG matchAllKeyword,
                                     PVOID filterData, PVOID callbackContext);
using PETWENABLECALLBACK = ETWENABLECALLBACK*;

// --- Version -------------------------------------------------------------------------------------

struct OSVERSIONINFOW {
    ULONG dwOSVersionInfoSize;
    ULONG dwMajorVersion;
    ULONG dwMinorVersion;
    ULONG dwBuildNumber;
    ULONG dwPlatformId;
    WCHAR szCSDVersion[128];
};
using PRTL_OSVERSIONINFOW = OSVERSIONINFOW*;
static_assert(sizeof(OSVERSIONINFOW) == 276);

using KSTART_ROUTINE = void NTAPI(PVOID startContext);

extern "C" {

// IRQL. Raising below or lowering above the current level stops the system.
KIRQL NTAPI KeGetCurrentIrql();
/// The processor that the caller runs on at this moment; it may run on another one right after.
ULONG NTAPI KeGetCurrentProcessorNumberEx(PVOID processorNumber);
ULONG NTAPI KeQueryActiveProcessorCount(ULONG_PTR* activeProcessors);
KIRQL NTAPI KfRaiseIrql(KIRQL newIrql);
void NTAPI KeLowerIrql(KIRQL oldIrql);

[[noreturn]] void NTAPI KeBugCheckEx(ULONG code, ULONG_PTR parameter1, ULONG_PTR parameter2,
                                     ULONG_PTR parameter3, ULONG_PTR parameter4);

// In-stack queued spin locks; the handle lives on the holder's stack.
// IRQL <= DISPATCH_LEVEL; raises to DISPATCH_LEVEL.
void NTAPI KeAcquireInStackQueuedSpinLock(PKSPIN_LOCK lock, PKLOCK_QUEUE_HANDLE handle);
void NTAPI KeReleaseInStackQueuedSpinLock(PKLOCK_QUEUE_HANDLE handle);

// Guarded mutexes. IRQL <= APC_LEVEL.
void NTAPI KeInitializeGuardedMutex(PKGUARDED_MUTEX mutex);
void NTAPI KeAcquireGuardedMutex(PKGUARDED_MUTEX mutex);
BOOLEAN NTAPI KeTryToAcquireGuardedMutex(PKGUARDED_MUTEX mutex);
void NTAPI KeReleaseGuardedMutex(PKGUARDED_MUTEX mutex);

// Normal kernel APC delivery. IRQL <= APC_LEVEL.
void NTAPI KeEnterCriticalRegion();
void NTAPI KeLeaveCriticalRegion();

// Events. KeSetEvent: IRQL <= DISPATCH_LEVEL; waiting: PASSIVE_LEVEL or APC_LEVEL.
void NTAPI KeInitializeEvent(PKEVENT event, EVENT_TYPE type, BOOLEAN state);
LONG NTAPI KeSetEvent(PKEVENT event, LONG increment, BOOLEAN wait);
void NTAPI KeClearEvent(PKEVENT event);
/// `object` is an event; `timeout` null waits for ever, zero does not wait.
NTSTATUS NTAPI KeWaitForSingleObject(PVOID object, int waitReason, KPROCESSOR_MODE waitMode,
                                     BOOLEAN alertable, PLARGE_INTEGER timeout);

// Run-down protection: acquiring fails once somebody waits for the release. IRQL <= APC_LEVEL.
void NTAPI ExInitializeRundownProtection(PEX_RUNDOWN_REF reference);
BOOLEAN NTAPI ExAcquireRundownProtection(PEX_RUNDOWN_REF reference);
void NTAPI ExReleaseRundownProtection(PEX_RUNDOWN_REF reference);
void NTAPI ExWaitForRundownProtectionRelease(PEX_RUNDOWN_REF reference);

// Pool. Paged pool: IRQL <= APC_LEVEL, also for access and for freeing; nonpaged: DISPATCH_LEVEL.
// Contents are undefined. Null when there is no memory.
PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE type, SIZE_T size, ULONG tag);
void NTAPI ExFreePoolWithTag(PVOID block, ULONG tag);
void NTAPI ExFreePool(PVOID block);

// Interlocked singly linked lists. Any IRQL.
void NTAPI InitializeSListHead(PSLIST_HEADER head);
PSLIST_ENTRY NTAPI ExpInterlockedPopEntrySList(PSLIST_HEADER head);
PSLIST_ENTRY NTAPI ExpInterlockedPushEntrySList(PSLIST_HEADER head, PSLIST_ENTRY entry);

// Lookaside lists. Entry size at least 16; depth 0: the system's choice. `flags`:
// POOL_NX_ALLOCATION or 0. Blocks keep the contents that they were freed with. Paged ones: IRQL <=
// APC_LEVEL.
void NTAPI ExInitializeNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate,
                                           PFREE_FUNCTION free, ULONG flags, SIZE_T size, ULONG tag,
                                           USHORT depth);
void NTAPI ExDeleteNPagedLookasideList(PNPAGED_LOOKASIDE_LIST list);
void NTAPI ExInitializePagedLookasideList(PPAGED_LOOKASIDE_LIST list, PALLOCATE_FUNCTION allocate,
                                          PFREE_FUNCTION free, ULONG flags, SIZE_T size, ULONG tag,
                                          USHORT depth);
void NTAPI ExDeletePagedLookasideList(PPAGED_LOOKASIDE_LIST list);
PVOID NTAPI ExAllocateFromPagedLookasideList(PPAGED_LOOKASIDE_LIST list);
void NTAPI ExFreeToPagedLookasideList(PPAGED_LOOKASIDE_LIST list, PVOID block);

// Objects. Referencing and dereferencing: IRQL <= DISPATCH_LEVEL; everything else PASSIVE_LEVEL.
LONG_PTR NTAPI ObfReferenceObject(PVOID object);
LONG_PTR NTAPI ObfDereferenceObject(PVOID object);
/// Takes a reference on the object behind the handle when its type and granted access fit.
NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE handle, ACCESS_MASK desiredAccess,
                                         POBJECT_TYPE type, KPROCESSOR_MODE accessMode,
                                         PVOID* object, POBJECT_HANDLE_INFORMATION information);
NTSTATUS NTAPI ObOpenObjectByPointer(PVOID object, ULONG attributes, PVOID accessState,
                                     ACCESS_MASK desiredAccess, POBJECT_TYPE type,
                                     KPROCESSOR_MODE accessMode, PHANDLE handle);
/// STATUS_INFO_LENGTH_MISMATCH with the size needed when `length` is too small.
NTSTATUS NTAPI ObQueryNameString(PVOID object, POBJECT_NAME_INFORMATION information, ULONG length,
                                 PULONG returnLength);
NTSTATUS NTAPI ZwClose(HANDLE handle);

// Files. PASSIVE_LEVEL.
NTSTATUS NTAPI ZwWriteFile(HANDLE file, HANDLE event, PVOID apcRoutine, PVOID apcContext,
                           PIO_STATUS_BLOCK ioStatus, PVOID buffer, ULONG length,
                           PLARGE_INTEGER byteOffset, PULONG key);

// Threads. PsCreateSystemThread, PsTerminateSystemThread: PASSIVE_LEVEL. KeDelayExecutionThread:
// IRQL <= APC_LEVEL.
PEPROCESS NTAPI IoGetCurrentProcess();
PETHREAD NTAPI PsGetCurrentThread();
HANDLE NTAPI PsGetCurrentProcessId();
HANDLE NTAPI PsGetCurrentThreadId();
NTSTATUS NTAPI PsCreateSystemThread(PHANDLE thread, ULONG desiredAccess,
                                    POBJECT_ATTRIBUTES attributes, HANDLE process, PVOID clientId,
                                    KSTART_ROUTINE* startRoutine, PVOID startContext);
NTSTATUS NTAPI PsTerminateSystemThread(NTSTATUS exitStatus);
NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE mode, BOOLEAN alertable,
                                      PLARGE_INTEGER interval);

// Event tracing. EtwWrite: any IRQL; the others PASSIVE_LEVEL. The enable callback may run before
// EtwRegister returns.
NTSTATUS NTAPI EtwRegister(LPCGUID providerId, PETWENABLECALLBACK enableCallback,
                           PVOID callbackContext, PREGHANDLE registration);
NTSTATUS NTAPI EtwUnregister(REGHANDLE registration);
NTSTATUS NTAPI EtwWrite(REGHANDLE registration, PCEVENT_DESCRIPTOR descriptor, LPCGUID activityId,
                        ULONG count, PEVENT_DATA_DESCRIPTOR data);

NTSTATUS NTAPI RtlGetVersion(PRTL_OSVERSIONINFOW information);

// Strings. Case-insensitive forms: PASSIVE_LEVEL. RtlInitUnicodeString: any IRQL.
void NTAPI RtlInitUnicodeString(PUNICODE_STRING destination, PCWSTR source);
void NTAPI RtlCopyUnicodeString(PUNICODE_STRING destination, PCUNICODE_STRING source);
LONG NTAPI RtlCompareUnicodeString(PCUNICODE_STRING first, PCUNICODE_STRING second,
                                   BOOLEAN caseInsensitive);
BOOLEAN NTAPI RtlEqualUnicodeString(PCUNICODE_STRING first, PCUNICODE_STRING second,
                                    BOOLEAN caseInsensitive);
/// Appends everything and, where there is room, a terminator; STATUS_BUFFER_TOO_SMALL appends
/// nothing.
NTSTATUS NTAPI RtlAppendUnicodeStringToString(PUNICODE_STRING destination, PCUNICODE_STRING source);
WCHAR NTAPI RtlUpcaseUnicodeChar(WCHAR character);
SIZE_T NTAPI RtlCompareMemory(const void* first, const void* second, SIZE_T length);

}  // extern "C"

// The C library's memory routines, which the kernel exports under the same names.
extern "C" {
void* memcpy(void* destination, const void* source, std::size_t size) noexcept;
void* memmove(void* destination, const void* source, std::size_t size) noexcept;
void* memset(void* destination, int value, std::size_t size) noexcept;
int memcmp(const void* first, const void* second, std::size_t size) noexcept;
}

// --- What the kernel headers supply inline -------------------------------------------------------

inline void KeInitializeSpinLock(PKSPIN_LOCK lock) {
    *lock = 0;
}

inline USHORT QueryDepthSList(const SLIST_HEADER* head) {
    return static_cast<USHORT>(__atomic_load_n(&head->Alignment, __ATOMIC_RELAXED) & 0xFFFF);
}

// Nonpaged lookaside lists, the system time and NTKERNEL_DATA: not the same on both systems.
#include <system_inlines.h>

extern "C" {
extern NTKERNEL_DATA POBJECT_TYPE* IoFileObjectType;
/// Where the addresses of user programs end.
extern NTKERNEL_DATA ULONG_PTR MmUserProbeAddress;
extern NTKERNEL_DATA POBJECT_TYPE* PsProcessType;
extern NTKERNEL_DATA POBJECT_TYPE* CmKeyObjectType;
}

// Small copies and fills of known size become plain moves.
#define RtlCopyMemory(destination, source, size) __builtin_memcpy(destination, source, size)
#define RtlZeroMemory(destination, size) __builtin_memset(destination, 0, size)
