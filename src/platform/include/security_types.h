// Security descriptors, access lists and identifiers.
#pragma once

#include "wdm.h"

inline constexpr SECURITY_INFORMATION OWNER_SECURITY_INFORMATION = 0x1;
inline constexpr SECURITY_INFORMATION GROUP_SECURITY_INFORMATION = 0x2;
inline constexpr SECURITY_INFORMATION DACL_SECURITY_INFORMATION = 0x4;
inline constexpr SECURITY_INFORMATION SACL_SECURITY_INFORMATION = 0x8;

inline constexpr USHORT SE_OWNER_DEFAULTED = 0x0001;
inline constexpr USHORT SE_GROUP_DEFAULTED = 0x0002;
inline constexpr USHORT SE_DACL_PRESENT = 0x0004;
inline constexpr USHORT SE_DACL_DEFAULTED = 0x0008;
inline constexpr USHORT SE_SACL_PRESENT = 0x0010;
inline constexpr USHORT SE_SACL_DEFAULTED = 0x0020;
inline constexpr USHORT SE_DACL_AUTO_INHERIT_REQ = 0x0100;
inline constexpr USHORT SE_SACL_AUTO_INHERIT_REQ = 0x0200;
inline constexpr USHORT SE_DACL_AUTO_INHERITED = 0x0400;
inline constexpr USHORT SE_SACL_AUTO_INHERITED = 0x0800;
inline constexpr USHORT SE_DACL_PROTECTED = 0x1000;
inline constexpr USHORT SE_SACL_PROTECTED = 0x2000;
inline constexpr USHORT SE_SELF_RELATIVE = 0x8000;
inline constexpr UCHAR SECURITY_DESCRIPTOR_REVISION = 1;
inline constexpr UCHAR SID_REVISION = 1;
inline constexpr UCHAR SID_MAX_SUB_AUTHORITIES = 15;
inline constexpr UCHAR ACL_REVISION = 2;
inline constexpr UCHAR MIN_ACL_REVISION = 2;
inline constexpr UCHAR MAX_ACL_REVISION = 4;
inline constexpr UCHAR ACCESS_ALLOWED_ACE_TYPE = 0;
inline constexpr UCHAR ACCESS_DENIED_ACE_TYPE = 1;
inline constexpr UCHAR SYSTEM_AUDIT_ACE_TYPE = 2;
inline constexpr UCHAR OBJECT_INHERIT_ACE = 0x01;
inline constexpr UCHAR CONTAINER_INHERIT_ACE = 0x02;
inline constexpr UCHAR NO_PROPAGATE_INHERIT_ACE = 0x04;
inline constexpr UCHAR INHERIT_ONLY_ACE = 0x08;
inline constexpr UCHAR INHERITED_ACE = 0x10;

struct SID_IDENTIFIER_AUTHORITY {
    UCHAR Value[6];
};

struct SID {
    UCHAR Revision;
    UCHAR SubAuthorityCount;
    SID_IDENTIFIER_AUTHORITY IdentifierAuthority;
    ULONG SubAuthority[1];
};
static_assert(sizeof(SID) == 12 && offsetof(SID, SubAuthority) == 8);

struct ACL {
    UCHAR AclRevision;
    UCHAR Sbz1;
    USHORT AclSize;
    USHORT AceCount;
    USHORT Sbz2;
};
using PACL = ACL*;
static_assert(sizeof(ACL) == 8 && offsetof(ACL, AclSize) == 2 && offsetof(ACL, AceCount) == 4);

struct ACE_HEADER {
    UCHAR AceType;
    UCHAR AceFlags;
    USHORT AceSize;
};
using PACE_HEADER = ACE_HEADER*;
static_assert(sizeof(ACE_HEADER) == 4 && offsetof(ACE_HEADER, AceSize) == 2);

struct ACCESS_ALLOWED_ACE {
    ACE_HEADER Header;
    ACCESS_MASK Mask;
    ULONG SidStart;
};
static_assert(sizeof(ACCESS_ALLOWED_ACE) == 12 && offsetof(ACCESS_ALLOWED_ACE, SidStart) == 8);

/// Self-relative form: offsets from the structure's first byte, 0 where the part is absent.
struct SECURITY_DESCRIPTOR_RELATIVE {
    UCHAR Revision;
    UCHAR Sbz1;
    USHORT Control;
    ULONG Owner;
    ULONG Group;
    ULONG Sacl;
    ULONG Dacl;
};
static_assert(sizeof(SECURITY_DESCRIPTOR_RELATIVE) == 20 &&
              offsetof(SECURITY_DESCRIPTOR_RELATIVE, Owner) == 4 &&
              offsetof(SECURITY_DESCRIPTOR_RELATIVE, Dacl) == 16);

/// Absolute form: pointers, null where the part is absent.
struct SECURITY_DESCRIPTOR {
    UCHAR Revision;
    UCHAR Sbz1;
    USHORT Control;
    PSID Owner;
    PSID Group;
    PACL Sacl;
    PACL Dacl;
};
static_assert(sizeof(SECURITY_DESCRIPTOR) == 40 && offsetof(SECURITY_DESCRIPTOR, Owner) == 8 &&
              offsetof(SECURITY_DESCRIPTOR, Dacl) == 32);
