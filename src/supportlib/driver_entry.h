// What the loader needs of zpklib: its entry point and, for leak checks, its pool tags.
#pragma once

#include <wdm.h>

#include <array>

namespace zpklib {

inline constexpr ULONG kProcessTag = MakeTag("ZLps");       ///< process records
inline constexpr ULONG kRegistrationTag = MakeTag("ZLrg");  ///< process tracking registrations
inline constexpr ULONG kTrustedTag = MakeTag("ZLti");       ///< list of trusted images
inline constexpr ULONG kExemptionsTag = MakeTag("ZLel");    ///< exemption lists
inline constexpr ULONG kExemptionTag = MakeTag("ZLex");     ///< their entries
inline constexpr ULONG kTreeTag = MakeTag("ZLtr");          ///< key trees
inline constexpr ULONG kBucketsTag = MakeTag("ZLtb");       ///< hash tables of key trees
inline constexpr ULONG kNodeTag = MakeTag("ZLnd");       ///< nodes, with the path they began with
inline constexpr ULONG kPathTag = MakeTag("ZLpt");       ///< paths of renamed nodes, and copies
inline constexpr ULONG kUpperCaseTag = MakeTag("ZLuc");  ///< upper-case table

/// Every tag above; nothing is left under any of them when the library has unloaded.
inline constexpr std::array kPoolTags = {
    kProcessTag, kRegistrationTag, kTrustedTag, kExemptionsTag, kExemptionTag,
    kTreeTag,    kBucketsTag,      kNodeTag,    kPathTag,       kUpperCaseTag};

}  // namespace zpklib

/// Reads the trusted images from the service key and begins to track processes. PASSIVE_LEVEL.
/// STATUS_ACCESS_DENIED: the image lacks integrity checks; STATUS_OBJECT_TYPE_MISMATCH: the
/// TrustedImages value is there but is no REG_MULTI_SZ.
extern "C" NTSTATUS NTAPI ZPkDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath);
