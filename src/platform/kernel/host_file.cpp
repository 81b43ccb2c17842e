#include "platform/kernel/host_file.h"

#include "platform/kernel/syscalls.h"
#include "platform/kernel/text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace platform {

namespace {

constexpr std::u16string_view kHostPrefixes[] = {u"\\??\\Host\\", u"\\DosDevices\\Host\\"};

/// IO_STATUS_BLOCK::Information of an open.
constexpr ULONG_PTR kFileSuperseded = 0;
constexpr ULONG_PTR kFileOpened = 1;
constexpr ULONG_PTR kFileCreated = 2;
constexpr ULONG_PTR kFileOverwritten = 3;

NTSTATUS StatusOfHostError(int error) {
    switch (error) {
        case ENOENT:
            return STATUS_OBJECT_NAME_NOT_FOUND;
        case ENOTDIR:
            return STATUS_OBJECT_PATH_NOT_FOUND;
        case EEXIST:
            return STATUS_OBJECT_NAME_COLLISION;
        case ENAMETOOLONG:
        case ELOOP:
            return STATUS_OBJECT_NAME_INVALID;
        case EACCES:
        case EPERM:
        case EROFS:
        case EISDIR:
        case ETXTBSY:
            return STATUS_ACCESS_DENIED;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return STATUS_DISK_FULL;
        case EMFILE:
        case ENFILE:
        case ENOMEM:
            return STATUS_INSUFFICIENT_RESOURCES;
        case EFAULT:
            return STATUS_ACCESS_VIOLATION;
        case EINVAL:
        case ESPIPE:
            return STATUS_INVALID_PARAMETER;
        case EIO:
            return STATUS_IO_DEVICE_ERROR;
        default:
            return STATUS_UNSUCCESSFUL;
    }
}

struct Disposition {
    bool mayCreate;
    bool mayOpen;
    bool truncates;
    ULONG_PTR ofExisting;
};

/// In the order of FILE_SUPERSEDE to FILE_OVERWRITE_IF.
constexpr Disposition kDispositions[] = {
    {true, true, true, kFileSuperseded},    // FILE_SUPERSEDE
    {false, true, false, kFileOpened},      // FILE_OPEN
    {true, false, false, kFileOpened},      // FILE_CREATE
    {true, true, false, kFileOpened},       // FILE_OPEN_IF
    {false, true, true, kFileOverwritten},  // FILE_OVERWRITE
    {true, true, true, kFileOverwritten},   // FILE_OVERWRITE_IF
};
static_assert(std::size(kDispositions) == FILE_OVERWRITE_IF + 1);

int AccessFlags(ACCESS_MASK access) {
    const bool writes = (access & (FILE_WRITE_DATA | FILE_APPEND_DATA)) != 0;
    const bool reads = (access & FILE_READ_DATA) != 0;
    if (writes) return reads ? O_RDWR : O_WRONLY;
    return O_RDONLY;
}

int OpenAgainWhenInterrupted(const std::string& path, int flags) {
    constexpr mode_t kEverybodysFile = 0666;
    int file = -1;
    do {
        file = open(path.c_str(), flags | O_CLOEXEC, kEverybodysFile);
    } while (file == -1 && errno == EINTR);
    return file;
}

/// A missing directory on the way to a file that was to be made is a missing path.
NTSTATUS CreationError(int error) {
    return error == ENOENT ? STATUS_OBJECT_PATH_NOT_FOUND : StatusOfHostError(error);
}

NTSTATUS FindOffset(const FileObject& file, const FilePlace& place, LONGLONG& offset) {
    switch (place.kind) {
        case FilePlace::Kind::kOffset:
            offset = place.offset;
            return STATUS_SUCCESS;
        case FilePlace::Kind::kCurrent:
            offset = file.position;
            return STATUS_SUCCESS;
        case FilePlace::Kind::kEnd:
            return SizeOfHostFile(file, offset);
    }
    return STATUS_INVALID_PARAMETER;
}

/// Calls `move` (bytes so far -> result of the host's call) until all is moved, the host says that
/// there is no more, or it fails.
template <typename Move>
NTSTATUS MoveAll(ULONG length, ULONG_PTR& transferred, Move move) {
    transferred = 0;
    while (transferred < length) {
        const ssize_t moved = move(transferred);
        if (moved < 0 && errno == EINTR) continue;
        if (moved < 0) return StatusOfHostError(errno);
        if (moved == 0) break;
        transferred += static_cast<ULONG_PTR>(moved);
    }
    return STATUS_SUCCESS;
}

/// Finds the place, transfers with `move` (offset in the file, bytes so far) and keeps the
/// position.
template <typename Move>
NTSTATUS Transfer(FileObject& file, const FilePlace& place, ULONG length, ULONG_PTR& transferred,
                  Move move) {
    transferred = 0;
    std::unique_lock turn(file.turnLock, std::defer_lock);
    if (file.synchronous) turn.lock();
    LONGLONG offset = 0;
    NTSTATUS status = FindOffset(file, place, offset);
    if (!NT_SUCCESS(status)) return status;
    status = MoveAll(length, transferred, [&](ULONG_PTR done) {
        return move(offset + static_cast<LONGLONG>(done), done);
    });
    if (file.synchronous) file.position = offset + static_cast<LONGLONG>(transferred);
    return status;
}

}  // namespace

std::u16string HostFileName(std::string_view hostPath) {
    std::u16string name = ToUtf16(hostPath);
    std::replace(name.begin(), name.end(), u'/', u'\\');
    return u"\\??\\Host" + name;
}

std::optional<std::string> HostPath(std::u16string_view name) {
    for (std::u16string_view prefix : kHostPrefixes) {
        if (!EqualIgnoringCase(name.substr(0, prefix.size()), prefix)) continue;
        std::string path = ToUtf8(name.substr(prefix.size() - 1));
        std::replace(path.begin(), path.end(), '\\', '/');
        return path;
    }
    return std::nullopt;
}

NTSTATUS OpenHostFile(FileObject& file, const std::string& path, ACCESS_MASK access,
                      ULONG disposition, ULONG_PTR& created) {
    if (disposition >= std::size(kDispositions)) return STATUS_INVALID_PARAMETER;
    // The host ends a path at a null character: such a name would open another file.
    if (path.find('\0') != std::string::npos) return STATUS_OBJECT_NAME_INVALID;
    const Disposition& wanted = kDispositions[disposition];
    const int flags = AccessFlags(access);
    if (wanted.mayCreate) {
        file.hostFile = OpenAgainWhenInterrupted(path, flags | O_CREAT | O_EXCL);
        created = kFileCreated;
        if (file.hostFile != -1) return STATUS_SUCCESS;
        if (errno != EEXIST || !wanted.mayOpen) return CreationError(errno);
    }
    file.hostFile = OpenAgainWhenInterrupted(path, flags | (wanted.truncates ? O_TRUNC : 0));
    created = wanted.ofExisting;
    return file.hostFile != -1 ? STATUS_SUCCESS : StatusOfHostError(errno);
}

NTSTATUS PlaceInFile(const FileObject& file, const LARGE_INTEGER* byteOffset, FilePlace& place) {
    constexpr LONGLONG kWriteToEndOfFile = -1;
    constexpr LONGLONG kUseFilePointerPosition = -2;
    const LONGLONG offset = byteOffset != nullptr ? byteOffset->QuadPart : kUseFilePointerPosition;
    if (offset == kUseFilePointerPosition) {
        place.kind = FilePlace::Kind::kCurrent;
        return file.synchronous ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
    if (offset == kWriteToEndOfFile) {
        place.kind = FilePlace::Kind::kEnd;
        return STATUS_SUCCESS;
    }
    place = {FilePlace::Kind::kOffset, offset};
    return offset >= 0 ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

NTSTATUS ReadHostFile(FileObject& file, const FilePlace& place, void* buffer, ULONG length,
                      ULONG_PTR& transferred) {
    if (place.kind == FilePlace::Kind::kEnd) return STATUS_INVALID_PARAMETER;
    const NTSTATUS status =
        Transfer(file, place, length, transferred, [&](LONGLONG offset, ULONG_PTR done) {
            return pread(file.hostFile, static_cast<std::byte*>(buffer) + done, length - done,
                         offset);
        });
    if (NT_SUCCESS(status) && transferred == 0 && length != 0) return STATUS_END_OF_FILE;
    return status;
}

NTSTATUS WriteHostFile(FileObject& file, const FilePlace& place, const void* buffer, ULONG length,
                       ULONG_PTR& transferred) {
    return Transfer(file, place, length, transferred, [&](LONGLONG offset, ULONG_PTR done) {
        return pwrite(file.hostFile, static_cast<const std::byte*>(buffer) + done, length - done,
                      offset);
    });
}

NTSTATUS SizeOfHostFile(const FileObject& file, LONGLONG& size) {
    struct stat information;
    if (fstat(file.hostFile, &information) != 0) return StatusOfHostError(errno);
    size = information.st_size;
    return STATUS_SUCCESS;
}

NTSTATUS TruncateHostFile(const FileObject& file, LONGLONG size) {
    int result = 0;
    do {
        result = ftruncate(file.hostFile, size);
    } while (result != 0 && errno == EINTR);
    return result == 0 ? STATUS_SUCCESS : StatusOfHostError(errno);
}

bool IsSameHostFile(const FileObject& first, const FileObject& second) {
    struct stat one;
    struct stat other;
    return fstat(first.hostFile, &one) == 0 && fstat(second.hostFile, &other) == 0 &&
           one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

}  // namespace platform
