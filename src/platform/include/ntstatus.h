// The NTSTATUS values that the project uses.
#pragma once

#include "ntdef.h"

namespace ntstatus_detail {
constexpr NTSTATUS Value(ULONG bits) {
    return static_cast<NTSTATUS>(bits);
}
}  // namespace ntstatus_detail

inline constexpr NTSTATUS STATUS_SUCCESS = 0;
inline constexpr NTSTATUS STATUS_WAIT_0 = 0;
inline constexpr NTSTATUS STATUS_TIMEOUT = 0x00000102;
inline constexpr NTSTATUS STATUS_PENDING = 0x00000103;
inline constexpr NTSTATUS STATUS_REPARSE = 0x00000104;
inline constexpr NTSTATUS STATUS_OBJECT_NAME_EXISTS = 0x40000000;
inline constexpr NTSTATUS STATUS_PREDEFINED_HANDLE = 0x40000016;
inline constexpr NTSTATUS STATUS_BUFFER_OVERFLOW = ntstatus_detail::Value(0x80000005);
inline constexpr NTSTATUS STATUS_DEVICE_BUSY = ntstatus_detail::Value(0x80000011);
inline constexpr NTSTATUS STATUS_NO_MORE_ENTRIES = ntstatus_detail::Value(0x8000001A);
inline constexpr NTSTATUS STATUS_UNSUCCESSFUL = ntstatus_detail::Value(0xC0000001);
inline constexpr NTSTATUS STATUS_NOT_IMPLEMENTED = ntstatus_detail::Value(0xC0000002);
inline constexpr NTSTATUS STATUS_INVALID_INFO_CLASS = ntstatus_detail::Value(0xC0000003);
inline constexpr NTSTATUS STATUS_INFO_LENGTH_MISMATCH = ntstatus_detail::Value(0xC0000004);
inline constexpr NTSTATUS STATUS_ACCESS_VIOLATION = ntstatus_detail::Value(0xC0000005);
inline constexpr NTSTATUS STATUS_INVALID_HANDLE = ntstatus_detail::Value(0xC0000008);
inline constexpr NTSTATUS STATUS_INVALID_CID = ntstatus_detail::Value(0xC000000B);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER = ntstatus_detail::Value(0xC000000D);
inline constexpr NTSTATUS STATUS_NO_SUCH_DEVICE = ntstatus_detail::Value(0xC000000E);
inline constexpr NTSTATUS STATUS_INVALID_DEVICE_REQUEST = ntstatus_detail::Value(0xC0000010);
inline constexpr NTSTATUS STATUS_END_OF_FILE = ntstatus_detail::Value(0xC0000011);
inline constexpr NTSTATUS STATUS_NO_MEMORY = ntstatus_detail::Value(0xC0000017);
inline constexpr NTSTATUS STATUS_ACCESS_DENIED = ntstatus_detail::Value(0xC0000022);
inline constexpr NTSTATUS STATUS_BUFFER_TOO_SMALL = ntstatus_detail::Value(0xC0000023);
inline constexpr NTSTATUS STATUS_OBJECT_TYPE_MISMATCH = ntstatus_detail::Value(0xC0000024);
inline constexpr NTSTATUS STATUS_BAD_INHERITANCE_ACL = ntstatus_detail::Value(0xC000007D);
inline constexpr NTSTATUS STATUS_DISK_FULL = ntstatus_detail::Value(0xC000007F);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_INVALID = ntstatus_detail::Value(0xC0000033);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_NOT_FOUND = ntstatus_detail::Value(0xC0000034);
inline constexpr NTSTATUS STATUS_OBJECT_NAME_COLLISION = ntstatus_detail::Value(0xC0000035);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_NOT_FOUND = ntstatus_detail::Value(0xC000003A);
inline constexpr NTSTATUS STATUS_OBJECT_PATH_SYNTAX_BAD = ntstatus_detail::Value(0xC000003B);
inline constexpr NTSTATUS STATUS_SHARING_VIOLATION = ntstatus_detail::Value(0xC0000043);
inline constexpr NTSTATUS STATUS_DELETE_PENDING = ntstatus_detail::Value(0xC0000056);
inline constexpr NTSTATUS STATUS_UNKNOWN_REVISION = ntstatus_detail::Value(0xC0000058);
inline constexpr NTSTATUS STATUS_INVALID_OWNER = ntstatus_detail::Value(0xC000005A);
inline constexpr NTSTATUS STATUS_PRIVILEGE_NOT_HELD = ntstatus_detail::Value(0xC0000061);
inline constexpr NTSTATUS STATUS_REGISTRY_CORRUPT = ntstatus_detail::Value(0xC000014C);
inline constexpr NTSTATUS STATUS_INVALID_ACL = ntstatus_detail::Value(0xC0000077);
inline constexpr NTSTATUS STATUS_INVALID_SID = ntstatus_detail::Value(0xC0000078);
inline constexpr NTSTATUS STATUS_INVALID_SECURITY_DESCR = ntstatus_detail::Value(0xC0000079);
inline constexpr NTSTATUS STATUS_INSUFFICIENT_RESOURCES = ntstatus_detail::Value(0xC000009A);
inline constexpr NTSTATUS STATUS_NOT_SUPPORTED = ntstatus_detail::Value(0xC00000BB);
inline constexpr NTSTATUS STATUS_INTERNAL_ERROR = ntstatus_detail::Value(0xC00000E5);
inline constexpr NTSTATUS STATUS_INVALID_USER_BUFFER = ntstatus_detail::Value(0xC00000E8);
inline constexpr NTSTATUS STATUS_INVALID_PARAMETER_4 = ntstatus_detail::Value(0xC00000F2);
inline constexpr NTSTATUS STATUS_CANCELLED = ntstatus_detail::Value(0xC0000120);
inline constexpr NTSTATUS STATUS_CANNOT_DELETE = ntstatus_detail::Value(0xC0000121);
inline constexpr NTSTATUS STATUS_FILE_CLOSED = ntstatus_detail::Value(0xC0000128);
inline constexpr NTSTATUS STATUS_KEY_DELETED = ntstatus_detail::Value(0xC000017C);
inline constexpr NTSTATUS STATUS_CHILD_MUST_BE_VOLATILE = ntstatus_detail::Value(0xC0000181);
inline constexpr NTSTATUS STATUS_DRIVER_INTERNAL_ERROR = ntstatus_detail::Value(0xC0000183);
inline constexpr NTSTATUS STATUS_INVALID_DEVICE_STATE = ntstatus_detail::Value(0xC0000184);
inline constexpr NTSTATUS STATUS_IO_DEVICE_ERROR = ntstatus_detail::Value(0xC0000185);
inline constexpr NTSTATUS STATUS_NOT_REGISTRY_FILE = ntstatus_detail::Value(0xC000015C);
inline constexpr NTSTATUS STATUS_PROCESS_IS_TERMINATING = ntstatus_detail::Value(0xC000010A);
inline constexpr NTSTATUS STATUS_NAME_TOO_LONG = ntstatus_detail::Value(0xC0000106);
inline constexpr NTSTATUS STATUS_DRIVER_ENTRYPOINT_NOT_FOUND = ntstatus_detail::Value(0xC0000263);
inline constexpr NTSTATUS STATUS_INTEGER_OVERFLOW = ntstatus_detail::Value(0xC0000095);
inline constexpr NTSTATUS STATUS_NOT_FOUND = ntstatus_detail::Value(0xC0000225);
inline constexpr NTSTATUS STATUS_CALLBACK_BYPASS = ntstatus_detail::Value(0xC0000503);
inline constexpr NTSTATUS STATUS_FLT_INSTANCE_ALTITUDE_COLLISION =
    ntstatus_detail::Value(0xC01C0011);
inline constexpr NTSTATUS STATUS_WDF_INTERNAL_ERROR = ntstatus_detail::Value(0xC0200201);
inline constexpr NTSTATUS STATUS_WDF_PAUSED = ntstatus_detail::Value(0xC0200203);
inline constexpr NTSTATUS STATUS_WDF_BUSY = ntstatus_detail::Value(0xC0200204);
inline constexpr NTSTATUS STATUS_WDF_REQUEST_ALREADY_PENDING = ntstatus_detail::Value(0xC0200207);
inline constexpr NTSTATUS STATUS_WDF_REQUEST_INVALID_STATE = ntstatus_detail::Value(0xC0200208);
inline constexpr NTSTATUS STATUS_WDF_OBJECT_ATTRIBUTES_INVALID = ntstatus_detail::Value(0xC0200209);
inline constexpr NTSTATUS STATUS_WDF_NO_CALLBACK = ntstatus_detail::Value(0xC020020B);
inline constexpr NTSTATUS STATUS_WDF_INCOMPATIBLE_EXECUTION_LEVEL =
    ntstatus_detail::Value(0xC020020C);
inline constexpr NTSTATUS STATUS_WDF_PARENT_ASSIGNMENT_NOT_ALLOWED =
    ntstatus_detail::Value(0xC020020F);
inline constexpr NTSTATUS STATUS_WDF_SYNCHRONIZATION_SCOPE_INVALID =
    ntstatus_detail::Value(0xC0200210);
inline constexpr NTSTATUS STATUS_WDF_EXECUTION_LEVEL_INVALID = ntstatus_detail::Value(0xC0200211);
inline constexpr NTSTATUS STATUS_WDF_PARENT_NOT_SPECIFIED = ntstatus_detail::Value(0xC0200212);
