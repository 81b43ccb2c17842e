#include "framework/framework_test.h"

namespace framework_test {

using platform::ThreadScope;

Client::Client(platform::Machine& machine, NTSTATUS* opened)
    : machine_(machine), process_(machine.StartProcess({.imagePath = u"\\fwtest.exe"})) {
    const ThreadScope scope(*process_);
    UNICODE_STRING name = kOpenName;
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK status{};
    *opened = NtCreateFile(&file_, GENERIC_READ | GENERIC_WRITE, &attributes, &status, nullptr, 0,
                           0, FILE_OPEN, 0, nullptr, 0);
}

Client::~Client() {
    machine_.ExitProcess(*process_);
}

void Client::Start(Sent& sent, ULONG code, void* output, ULONG outputLength) {
    const ThreadScope scope(*process_);
    EXPECT_EQ(NtCreateEvent(&sent.event_, 0x1F0003, nullptr, NotificationEvent, FALSE),
              STATUS_SUCCESS);
    sent.status_.Status = STATUS_PENDING;
    sent.returned = NtDeviceIoControlFile(file_, sent.event_, nullptr, nullptr, &sent.status_, code,
                                          sent.input.data(), static_cast<ULONG>(sent.input.size()),
                                          output, outputLength);
}

std::unique_ptr<Sent> Client::Send(ULONG code, std::vector<char> input, ULONG outputLength) {
    auto sent = std::make_unique<Sent>(std::move(input), outputLength);
    Start(*sent, code, sent->output.data(), outputLength);
    return sent;
}

std::unique_ptr<Sent> Client::SendTo(ULONG code, void* output, ULONG outputLength) {
    auto sent = std::make_unique<Sent>(std::vector<char>{}, 0);
    Start(*sent, code, output, outputLength);
    return sent;
}

NTSTATUS Client::Wait(Sent& sent) {
    const ThreadScope scope(*process_);
    EXPECT_EQ(NtWaitForSingleObject(sent.event_, FALSE, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(sent.event_), STATUS_SUCCESS);
    return sent.Status();
}

void Client::Cancel(Sent& sent) {
    const ThreadScope scope(*process_);
    IO_STATUS_BLOCK status{};
    NtCancelIoFileEx(file_, &sent.status_, &status);
}

void Client::Close() {
    const ThreadScope scope(*process_);
    EXPECT_EQ(NtClose(file_), STATUS_SUCCESS);
    file_ = nullptr;
}

FrameworkTest::FrameworkTest() {
    behaviour = {};
    objects = {};
    machine.emplace();
}

FrameworkTest::~FrameworkTest() {
    machine.reset();
    behaviour = {};
}

NTSTATUS FrameworkTest::Load() {
    return machine->LoadDriver({.name = u"fwtest", .entry = FxDriverEntry, .poolTags = {}});
}

NTSTATUS FrameworkTest::Unload() {
    return machine->UnloadDriver(u"fwtest");
}

void FrameworkTest::AbandonDriver() {
    machine->ForgetLeaks();
    platform::RemoveName(platform::View(kDeviceName));
    platform::RemoveName(platform::View(kLinkName));
}

std::unique_ptr<Client> FrameworkTest::Open() {
    NTSTATUS opened = STATUS_UNSUCCESSFUL;
    auto client = std::make_unique<Client>(*machine, &opened);
    EXPECT_EQ(opened, STATUS_SUCCESS);
    return client;
}

void FrameworkTest::ParkRequests() {
    behaviour.deviceControl = [](WDFREQUEST request, size_t, size_t, ULONG) {
        const NTSTATUS status = WdfRequestForwardToIoQueue(request, objects.parked);
        if (!NT_SUCCESS(status)) WdfRequestComplete(request, status);
    };
}

void FrameworkTest::HoldRequests() {
    behaviour.deviceControl = [this](WDFREQUEST request, size_t, size_t, ULONG) {
        std::scoped_lock guard(heldLock_);
        held_.push_back(request);
    };
}

WDFREQUEST FrameworkTest::LastHeld() {
    std::scoped_lock guard(heldLock_);
    return held_.empty() ? nullptr : held_.back();
}

void FrameworkTest::ExpectStop(std::uint32_t code, std::uintptr_t parameter,
                               const std::function<void()>& action,
                               const std::vector<std::string>& words) {
    const auto record = platform::CatchBugcheck(action);
    ASSERT_TRUE(record.has_value()) << "the machine did not stop";
    EXPECT_EQ(record->code, code) << record->message;
    if (parameter != 0) {
        EXPECT_EQ(record->parameters[0], parameter) << record->message;
    }
    for (const std::string& word : words) {
        EXPECT_NE(record->message.find(word), std::string::npos)
            << "no \"" << word << "\" in: " << record->message;
    }
}

}  // namespace framework_test
