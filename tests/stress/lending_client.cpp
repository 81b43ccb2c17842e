#include "stress/lending_client.h"

#include "client/record_decoder.h"
#include "driver/control_codes.h"
#include "platform/kernel/io.h"

namespace stress {

namespace {

constexpr std::size_t kBufferSize = 0x10000;

HANDLE Open(std::u16string path, ULONG disposition, ULONG options) {
    UNICODE_STRING name = platform::Describe(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE file = nullptr;
    IO_STATUS_BLOCK ioStatus = {};
    const NTSTATUS status =
        NtCreateFile(&file, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &ioStatus,
                     nullptr, 0, 0, disposition, options, nullptr, 0);
    return NT_SUCCESS(status) ? file : nullptr;
}

}  // namespace

int Total(const RecordCounts& counts) {
    int total = 0;
    for (const auto& [id, count] : counts)
        total += count;
    return total;
}

LendingClient::LendingClient(platform::Process& process, std::size_t buffers, unsigned seed)
    : thread_(process),
      random_(seed),
      device_(Open(u"\\??\\zpregflt", FILE_OPEN, 0)),
      control_(Open(u"\\??\\zpregflt", FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT)) {
    if (device_ == nullptr || control_ == nullptr) faults_.push_back("the device does not open");
    for (std::size_t i = 0; i < buffers; ++i) {
        auto loan = std::make_unique<Loan>();
        loan->memory = platform::AllocateUserMemory(kBufferSize);
        NtCreateEvent(&loan->event, 0x1F0003, nullptr, NotificationEvent, FALSE);
        loans_.push_back(std::move(loan));
    }
}

LendingClient::~LendingClient() {
    for (const auto& loan : loans_) {
        NtClose(loan->event);
        platform::FreeUserMemory(loan->memory);
    }
    if (device_ != nullptr) NtClose(device_);
    if (control_ != nullptr) NtClose(control_);
}

void LendingClient::Lend(Loan& loan) {
    const NTSTATUS status = NtDeviceIoControlFile(device_, loan.event, nullptr, nullptr,
                                                  &loan.ioStatus, zpregflt::IOCTL_ZPRF_GET_BUFFER,
                                                  nullptr, 0, loan.memory, kBufferSize);
    loan.out = true;
    if (!NT_SUCCESS(status)) {
        loan.out = false;
        faults_.push_back("a buffer was not taken, status " + std::to_string(status));
    }
}

bool LendingClient::Settled(const Loan& loan) const {
    LARGE_INTEGER now = {};
    return NtWaitForSingleObject(loan.event, FALSE, &now) == STATUS_WAIT_0;
}

void LendingClient::Collect(Loan& loan) {
    loan.out = false;
    if (loan.ioStatus.Status == STATUS_CANCELLED) {
        ++cancelled_;
        return;
    }
    if (loan.ioStatus.Status != STATUS_SUCCESS) {
        faults_.push_back("a buffer request ended with " + std::to_string(loan.ioStatus.Status));
        return;
    }
    reservations_ += loan.ioStatus.Information;
    zpregmon::RecordDecoder decoder({static_cast<const std::byte*>(loan.memory), kBufferSize});
    zpregmon::Event event;
    while (decoder.Next(event)) {
        const std::u16string key(event.Key().value_or(u"(no name)"));
        ++delivered_[{static_cast<std::uint32_t>(event.Type()), key}];
    }
    if (decoder.Error()) {
        faults_.push_back("a delivered chain is damaged: " + decoder.Error()->what);
    }
}

void LendingClient::Step(bool cancel) {
    for (const auto& loan : loans_) {
        if (loan->out && Settled(*loan)) Collect(*loan);
        if (!loan->out) Lend(*loan);
        if (cancel && loan->out && random_() % 8 == 0) {
            IO_STATUS_BLOCK ioStatus = {};
            NtCancelIoFileEx(device_, &loan->ioStatus, &ioStatus);
        }
    }
}

NTSTATUS LendingClient::Flush() {
    IO_STATUS_BLOCK ioStatus = {};
    return NtDeviceIoControlFile(control_, nullptr, nullptr, nullptr, &ioStatus,
                                 zpregflt::IOCTL_ZPRF_FLUSH, nullptr, 0, nullptr, 0);
}

NTSTATUS LendingClient::SetDumpFile(const std::string& path) {
    HANDLE file =
        Open(platform::HostFileName(path), FILE_OVERWRITE_IF, FILE_SYNCHRONOUS_IO_NONALERT);
    const auto number = static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(file));
    IO_STATUS_BLOCK ioStatus = {};
    const NTSTATUS status = NtDeviceIoControlFile(
        control_, nullptr, nullptr, nullptr, &ioStatus, zpregflt::IOCTL_ZPRF_SET_DUMP_FILE,
        const_cast<std::uint32_t*>(&number), sizeof(number), nullptr, 0);
    if (file != nullptr) NtClose(file);
    return status;
}

void LendingClient::Finish() {
    // Every flush delivers one buffer at least as long as there are records; boot buffers that wait
    // for a client buffer get theirs with each one lent again.
    for (std::uint64_t before = ~std::uint64_t{0}; before != reservations_;) {
        before = reservations_;
        for (std::size_t i = 0; i < loans_.size() + 4; ++i) {
            Step(false);
            Flush();
        }
    }
    IO_STATUS_BLOCK ioStatus = {};
    NtCancelIoFileEx(device_, nullptr, &ioStatus);
    for (const auto& loan : loans_) {
        if (!loan->out) continue;
        NtWaitForSingleObject(loan->event, FALSE, nullptr);
        Collect(*loan);
    }
}

}  // namespace stress
