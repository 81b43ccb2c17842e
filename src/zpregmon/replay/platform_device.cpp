#include "zpregmon/replay/platform_device.h"

#include "client/control_session.h"
#include "client/record_decoder.h"
#include "driver/control_codes.h"
#include "platform/kernel/io.h"

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <stdexcept>

namespace zpregmon {

using platform::ThreadScope;

PlatformDevice::PlatformDevice(platform::Process& process) : process_(&process) {
    const ThreadScope scope(process);
    constexpr ACCESS_MASK kAccess = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE;
    const std::u16string_view name = u"\\??\\zpregflt";
    Status status = Open(bufferFile_, kAccess, name, FILE_OPEN, 0);
    if (status >= 0) {
        status = Open(controlFile_, kAccess, name, FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT);
    }
    if (status < 0) {
        if (bufferFile_ != nullptr) {
            NtClose(bufferFile_);
        }
        throw ControlError("cannot open the driver's control device", status);
    }
}

PlatformDevice::~PlatformDevice() {
    const ThreadScope scope(*process_);
    NtClose(controlFile_);
    NtClose(bufferFile_);
    for (const auto& slot : slots_) {
        NtClose(slot->event);
        platform::FreeUserMemory(slot->memory);
    }
}

Status PlatformDevice::Open(HANDLE& file, ACCESS_MASK access, std::u16string_view name,
                            ULONG disposition, ULONG options) {
    UNICODE_STRING text = platform::Describe(name);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &text, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK ioStatus;
    return NtCreateFile(&file, access, &attributes, &ioStatus, nullptr, 0, 0, disposition, options,
                        nullptr, 0);
}

void PlatformDevice::AllocateBuffers(std::size_t count, std::size_t size) {
    if (count > kMostBuffers) {
        throw std::invalid_argument("too many buffers for one wait");
    }
    const ThreadScope scope(*process_);
    bufferSize_ = size;
    while (slots_.size() < count) {
        auto slot = std::make_unique<Slot>();
        constexpr ACCESS_MASK kEventAllAccess = 0x001F0003;
        const Status status =
            NtCreateEvent(&slot->event, kEventAllAccess, nullptr, NotificationEvent, FALSE);
        if (status < 0) {
            throw ControlError("cannot make an event", status);
        }
        slot->memory = static_cast<std::byte*>(platform::AllocateUserMemory(size));
        slots_.push_back(std::move(slot));
    }
}

std::span<std::byte> PlatformDevice::Buffer(std::size_t slot) {
    return {slots_[slot]->memory, bufferSize_};
}

Status PlatformDevice::LendBuffer(std::size_t index) {
    const ThreadScope scope(*process_);
    Slot& slot = *slots_[index];
    slot.ioStatus.Status = STATUS_PENDING;
    const Status status = NtDeviceIoControlFile(
        bufferFile_, slot.event, nullptr, nullptr, &slot.ioStatus, zpregflt::IOCTL_ZPRF_GET_BUFFER,
        nullptr, 0, slot.memory, static_cast<ULONG>(bufferSize_));
    if (status >= 0) {
        slot.lent.store(true, std::memory_order_release);
    }
    return status;
}

std::vector<Completion> PlatformDevice::WaitForCompletions() {
    const ThreadScope scope(*process_);
    std::vector<HANDLE> events;
    std::vector<std::size_t> indices;
    for (std::size_t index = 0; index < slots_.size(); ++index) {
        if (slots_[index]->lent.load(std::memory_order_relaxed)) {
            events.push_back(slots_[index]->event);
            indices.push_back(index);
        }
    }
    Wait(events);
    std::vector<Completion> completions;
    for (const std::size_t index : FindComeBack(indices)) {
        completions.push_back(Collect(index));
    }
    SortByTime(completions);
    return completions;
}

/// Looks until two looks find the same: whatever came back before one that the first of them found
/// is found by the second, so that no later buffer is taken for an earlier one.
std::vector<std::size_t> PlatformDevice::FindComeBack(const std::vector<std::size_t>& lent) {
    std::vector<std::size_t> before;
    for (;;) {
        std::vector<std::size_t> found;
        std::copy_if(lent.begin(), lent.end(), std::back_inserter(found),
                     [this](std::size_t index) { return HasComeBack(*slots_[index]); });
        if (found == before) {
            return found;
        }
        before = std::move(found);
    }
}

void PlatformDevice::Wait(std::vector<HANDLE>& anyOf) {
    const NTSTATUS status = NtWaitForMultipleObjects(static_cast<ULONG>(anyOf.size()), anyOf.data(),
                                                     TRUE, FALSE, nullptr);
    if (status < 0) {
        throw ControlError("cannot wait for buffers", status);
    }
}

/// A look at the status block costs no call. The kernel writes the status last, but before it sets
/// the event.
bool PlatformDevice::HasComeBack(const Slot& slot) {
    return __atomic_load_n(&slot.ioStatus.Status, __ATOMIC_ACQUIRE) != STATUS_PENDING;
}

Completion PlatformDevice::Collect(std::size_t index) {
    Slot& slot = *slots_[index];
    // Only when the event is set, too, is the kernel done with the slot.
    std::vector<HANDLE> event{slot.event};
    Wait(event);
    slot.lent.store(false, std::memory_order_relaxed);
    return {index, slot.ioStatus.Status, slot.ioStatus.Information};
}

/// Of several requests that have come back since the last look, the system does not tell which came
/// first. Their first records do.
void PlatformDevice::SortByTime(std::vector<Completion>& completions) {
    if (completions.size() < 2) {
        return;
    }
    std::vector<std::pair<std::uint64_t, Completion>> timed;
    for (const Completion& completion : completions) {
        Event first;
        const bool hasRecord = RecordDecoder(Buffer(completion.slot)).Next(first);
        timed.emplace_back(hasRecord ? first.SystemTime() : 0, completion);
    }
    std::stable_sort(timed.begin(), timed.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    std::transform(timed.begin(), timed.end(), completions.begin(),
                   [](const auto& entry) { return entry.second; });
}

bool PlatformDevice::DriverHasBuffers(std::size_t count) {
    std::size_t found = 0;
    for (const auto& slot : slots_) {
        if (found >= count) {
            break;
        }
        if (slot->lent.load(std::memory_order_acquire) && !HasComeBack(*slot)) {
            ++found;
        }
    }
    return found >= count;
}

void PlatformDevice::CancelBuffers() {
    const ThreadScope scope(*process_);
    IO_STATUS_BLOCK ioStatus;
    // STATUS_NOT_FOUND: all have come back already.
    NtCancelIoFileEx(bufferFile_, nullptr, &ioStatus);
}

Status PlatformDevice::Control(std::uint32_t code, std::span<const std::byte> input) {
    const ThreadScope scope(*process_);
    IO_STATUS_BLOCK ioStatus;
    return NtDeviceIoControlFile(controlFile_, nullptr, nullptr, nullptr, &ioStatus, code,
                                 const_cast<std::byte*>(input.data()),
                                 static_cast<ULONG>(input.size()), nullptr, 0);
}

Status PlatformDevice::SetDumpFile(const std::string& path) {
    const ThreadScope scope(*process_);
    const std::u16string name =
        u"\\??\\Host\\" + platform::ToUtf16(std::filesystem::absolute(path).string());
    HANDLE file = nullptr;
    Status status =
        Open(file, FILE_GENERIC_WRITE, name, FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT);
    if (status < 0) {
        return status;
    }
    const auto handle = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(file));
    status = Control(zpregflt::IOCTL_ZPRF_SET_DUMP_FILE, std::as_bytes(std::span(&handle, 1)));
    NtClose(file);
    return status;
}

}  // namespace zpregmon
