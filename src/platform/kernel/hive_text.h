// The text of a hive file: what registry editors export and import ("Windows Registry Editor
// Version 5.00"), in UTF-16 with a byte order mark, or in UTF-8.
//
//   [HKEY_LOCAL_MACHINE\Test\Sub]      one key after the other, each before what is below it
//   ;@class="Kind"                     what editors know nothing of stands in comments
//   ;@link                             the key is a symbolic link
//   ;@written=01db00a1b2c3d4e5         time of the last change, in 100 ns since 1601
//   ;@security=hex:01,00,04,80,...     self-relative security descriptor
//   @="default value"                  values: REG_SZ where the text is printable and terminated
//   "Count"=dword:0000002a             REG_DWORD of four bytes
//   "Data"=hex:01,02                   REG_BINARY
//   "Other"=hex(7):61,00,00,00         everything else, with its type in hexadecimal
//
// The first key is the hive's root; its path only tells where the others are. In names of values a
// backslash goes before a backslash or a quote, and stands with n, r or 0 for a line feed, carriage
// return or null; in paths of keys these three are written with two backslashes, which a path
// cannot have otherwise. Volatile keys, title indices and flags of keys are not saved.
#pragma once

#include "platform/kernel/key_tree.h"

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

/// The text for the key and what is below it. The tree's lock is held, shared at least.
std::u16string WriteHiveText(const KeyNode& key);

/// Why a text is no hive: STATUS_NOT_REGISTRY_FILE or STATUS_REGISTRY_CORRUPT, where, and what was
/// expected there.
struct HiveTextError {
    NTSTATUS status = STATUS_SUCCESS;
    std::size_t line = 0;
    std::string expected;
};

/// A root of its own with the text's keys below it; null when the text is no hive. Keys without
/// security in the text have none.
KeyNodeRef ReadHiveText(std::u16string_view text, HiveTextError& error);

/// The text in the bytes of a file, and the bytes for a text.
std::u16string DecodeHiveText(std::span<const std::byte> bytes);
std::vector<std::byte> EncodeHiveText(std::u16string_view text);

}  // namespace platform
