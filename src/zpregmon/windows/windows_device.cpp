#include "zpregmon/windows/windows_device.h"

#include "driver/control_codes.h"
#include "zpregmon/windows/system_error.h"
#include "zpregmon/windows/wide_text.h"

#include <winternl.h>

#include <algorithm>
#include <array>

namespace zpregmon {

namespace {

struct FreePages {
    void operator()(void* pages) const { VirtualFree(pages, 0, MEM_RELEASE); }
};

Handle OpenDevice(DWORD flags) {
    Handle file = OwnFile(CreateFileW(L"\\\\.\\zpregflt", GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                      flags, nullptr));
    if (!file) {
        throw SystemError(Attempt::kOpenDevice, "the driver's control device");
    }
    return file;
}

}  // namespace

/// The request's block comes first: the port hands its address back.
struct WindowsDevice::Slot : OVERLAPPED {
    explicit Slot(std::size_t slotIndex, std::size_t size)
        : OVERLAPPED{},
          index(slotIndex),
          memory(VirtualAlloc(nullptr, size, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE)) {
        if (!memory) {
            throw SystemError(Attempt::kOther, "allocate buffers");
        }
    }

    std::size_t index;
    std::unique_ptr<void, FreePages> memory;
    std::atomic<bool> lent{false};
};

WindowsDevice::WindowsDevice()
    : bufferFile_(OpenDevice(FILE_FLAG_OVERLAPPED)),
      controlFile_(OpenDevice(0)),
      port_(CreateIoCompletionPort(bufferFile_.get(), nullptr, 0, 1)) {
    if (!port_) {
        throw SystemError(Attempt::kOther, "make a completion port");
    }
}

WindowsDevice::~WindowsDevice() = default;

void WindowsDevice::AllocateBuffers(std::size_t count, std::size_t size) {
    bufferSize_ = size;
    while (slots_.size() < count) {
        slots_.push_back(std::make_unique<Slot>(slots_.size(), size));
    }
}

std::span<std::byte> WindowsDevice::Buffer(std::size_t slot) {
    return {static_cast<std::byte*>(slots_[slot]->memory.get()), bufferSize_};
}

Status WindowsDevice::LendBuffer(std::size_t index) {
    Slot& slot = *slots_[index];
    OVERLAPPED* const request = &slot;
    *request = {};
    request->Internal = static_cast<ULONG_PTR>(STATUS_PENDING);
    slot.lent.store(true, std::memory_order_release);
    const Status status = NtDeviceIoControlFile(bufferFile_.get(), nullptr, nullptr, request,
                                                reinterpret_cast<IO_STATUS_BLOCK*>(request),
                                                zpregflt::IOCTL_ZPRF_GET_BUFFER, nullptr, 0,
                                                slot.memory.get(), static_cast<ULONG>(bufferSize_));
    if (status < 0) {
        slot.lent.store(false, std::memory_order_release);
    }
    return status;
}

std::vector<Completion> WindowsDevice::WaitForCompletions() {
    std::array<OVERLAPPED_ENTRY, 64> entries;
    ULONG count = 0;
    if (!GetQueuedCompletionStatusEx(port_.get(), entries.data(),
                                     static_cast<ULONG>(entries.size()), &count, INFINITE, FALSE)) {
        throw SystemError(Attempt::kOther, "wait for buffers");
    }
    std::vector<Completion> completions;
    for (const OVERLAPPED_ENTRY& entry : std::span(entries).first(count)) {
        Slot& slot = *static_cast<Slot*>(entry.lpOverlapped);
        slot.lent.store(false, std::memory_order_release);
        completions.push_back({slot.index, static_cast<Status>(slot.Internal), slot.InternalHigh});
    }
    return completions;
}

/// The system may note that a request has come back only when it is taken from the port: until
/// then the driver seems to have the buffer.
bool WindowsDevice::DriverHasBuffers(std::size_t count) {
    const auto has = [](const std::unique_ptr<Slot>& slot) {
        return slot->lent.load(std::memory_order_acquire) && !HasOverlappedIoCompleted(slot.get());
    };
    return static_cast<std::size_t>(std::count_if(slots_.begin(), slots_.end(), has)) >= count;
}

void WindowsDevice::CancelBuffers() {
    // Fails when all have come back already.
    CancelIoEx(bufferFile_.get(), nullptr);
}

Status WindowsDevice::Control(std::uint32_t code, std::span<const std::byte> input) {
    IO_STATUS_BLOCK ioStatus;
    return NtDeviceIoControlFile(controlFile_.get(), nullptr, nullptr, nullptr, &ioStatus, code,
                                 const_cast<std::byte*>(input.data()),
                                 static_cast<ULONG>(input.size()), nullptr, 0);
}

/// The driver keeps a handle of its own. What was in the file goes only once the driver has taken
/// it.
Status WindowsDevice::SetDumpFile(const std::string& path) {
    const Handle file = OwnFile(CreateFileW(ToWide(path).c_str(), GENERIC_WRITE, FILE_SHARE_READ,
                                            nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        throw SystemError(Attempt::kOpenFile, path);
    }
    const auto handle = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(file.get()));
    const Status status =
        Control(zpregflt::IOCTL_ZPRF_SET_DUMP_FILE, std::as_bytes(std::span(&handle, 1)));
    if (status >= 0 && !SetEndOfFile(file.get())) {
        throw SystemError(Attempt::kOpenFile, path);
    }
    return status;
}

}  // namespace zpregmon
