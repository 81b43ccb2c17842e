// Files of the host behind file objects. Errors of the host become the nearest status.
#pragma once

#include "platform/kernel/io.h"

#include <optional>

namespace platform {

/// The host's path in a name that HostFileName made; nothing for other names.
std::optional<std::string> HostPath(std::u16string_view name);

/// Opens `path` in the file; `created` tells for IO_STATUS_BLOCK what happened.
NTSTATUS OpenHostFile(FileObject& file, const std::string& path, ACCESS_MASK access,
                      ULONG disposition, ULONG_PTR& created);

/// Where a transfer begins: a place of the file, or what the two special offsets ask for. Null
/// means the current position, which only a synchronous file has.
struct FilePlace {
    enum class Kind { kOffset, kCurrent, kEnd };
    Kind kind = Kind::kCurrent;
    LONGLONG offset = 0;
};
NTSTATUS PlaceInFile(const FileObject& file, const LARGE_INTEGER* byteOffset, FilePlace& place);

/// Transfers up to `length` bytes and moves a synchronous file's position behind them.
/// `transferred` is right also after a failure. STATUS_END_OF_FILE when there is nothing to read.
NTSTATUS ReadHostFile(FileObject& file, const FilePlace& place, void* buffer, ULONG length,
                      ULONG_PTR& transferred);
NTSTATUS WriteHostFile(FileObject& file, const FilePlace& place, const void* buffer, ULONG length,
                       ULONG_PTR& transferred);

/// Where the file ends, and making it end there.
NTSTATUS SizeOfHostFile(const FileObject& file, LONGLONG& size);
NTSTATUS TruncateHostFile(const FileObject& file, LONGLONG size);
/// Whether both are open to one and the same file.
bool IsSameHostFile(const FileObject& first, const FileObject& second);

}  // namespace platform
