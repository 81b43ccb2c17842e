// Requests to devices: buffers, completion, cancellation, and the races between them.
#include "platform/kernel/syscalls.h"
#include "test_device.h"

#include <barrier>
#include <cstring>
#include <thread>

namespace platform::device_tests {

namespace {

constexpr ULONG kBuffered = ControlCode(0x800, METHOD_BUFFERED);
constexpr ULONG kNeither = ControlCode(0x801, METHOD_NEITHER);
const auto kBadAddress = reinterpret_cast<void*>(0x10);

NTSTATUS Control(HANDLE handle, IO_STATUS_BLOCK& ioStatus, ULONG code, HANDLE event = nullptr,
                 void* input = nullptr, ULONG inputLength = 0, void* output = nullptr,
                 ULONG outputLength = 0) {
    return NtDeviceIoControlFile(handle, event, nullptr, nullptr, &ioStatus, code, input,
                                 inputLength, output, outputLength);
}

NTSTATUS PolledStatus(const IO_STATUS_BLOCK& ioStatus) {
    return __atomic_load_n(&ioStatus.Status, __ATOMIC_ACQUIRE);
}

TEST_F(DeviceTest, BufferedRequestsCopyInputAndOutput) {
    TestDevice device;
    NTSTATUS status = STATUS_BUFFER_OVERFLOW;  // a warning gives the caller its output, too
    device.onRequest = [&](IRP* irp) {
        EXPECT_EQ(irp->inputLength, 3u);
        EXPECT_EQ(irp->outputLength, 8u);
        EXPECT_EQ(std::memcmp(irp->systemBuffer.get(), "abc", 3), 0);
        std::memcpy(irp->systemBuffer.get(), "12345678", 8);
        return TestDevice::Finish(irp, status, 5);
    };
    const HANDLE handle = MustOpen();
    for (const NTSTATUS given : {STATUS_BUFFER_OVERFLOW, STATUS_UNSUCCESSFUL}) {
        status = given;
        IO_STATUS_BLOCK ioStatus{};
        char input[] = "abc";
        char output[] = "--------";
        EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, input, 3, output, 8), given);
        EXPECT_STREQ(output, given == STATUS_UNSUCCESSFUL ? "--------" : "12345---");
        if (given == STATUS_UNSUCCESSFUL) continue;
        EXPECT_EQ(ioStatus.Status, given);
        EXPECT_EQ(ioStatus.Information, 5u);
    }
    NtClose(handle);
}

TEST_F(DeviceTest, DirectAndNeitherRequestsReachTheCallersMemory) {
    TestDevice device;
    auto* output = static_cast<char*>(AllocateUserMemory(64));
    char input[] = "in";
    device.onRequest = [&](IRP* irp) {
        EXPECT_EQ(irp->requestorMode, UserMode);
        EXPECT_EQ(&irp->thread->Owner(), process_.get());
        if (irp->systemBuffer == nullptr) {
            EXPECT_EQ(irp->type3InputBuffer, input);
            EXPECT_EQ(irp->userBuffer, output + 5);
            std::memcpy(irp->userBuffer, "out", 3);
        } else {
            EXPECT_EQ(std::memcmp(irp->systemBuffer.get(), "in", 2), 0);
            EXPECT_EQ(irp->mdl->Length(), 10u);
            std::memcpy(irp->mdl->SystemAddress(), "out", 3);
        }
        return TestDevice::Finish(irp, STATUS_SUCCESS, 1000);  // means what the driver likes
    };
    const HANDLE handle = MustOpen();
    for (ULONG method : {METHOD_IN_DIRECT, METHOD_OUT_DIRECT, METHOD_NEITHER}) {
        SCOPED_TRACE(method);
        IO_STATUS_BLOCK ioStatus{};
        std::memset(output, 0, 64);
        EXPECT_EQ(Control(handle, ioStatus, ControlCode(0x802, method), nullptr, input, 2,
                          output + 5, 10),
                  STATUS_SUCCESS);
        EXPECT_STREQ(output + 5, "out");
        EXPECT_EQ(ioStatus.Information, 1000u);
    }
    FreeUserMemory(output);
    NtClose(handle);
}

TEST_F(DeviceTest, ControlCodesNameTheAccessTheyNeed) {
    TestDevice device;
    constexpr ULONG kBoth = FILE_READ_ACCESS | FILE_WRITE_ACCESS;
    const struct {
        ACCESS_MASK granted;
        ULONG required;
        NTSTATUS status;
    } cases[] = {
        {FILE_READ_DATA, FILE_ANY_ACCESS, STATUS_SUCCESS},
        {FILE_READ_DATA, FILE_READ_ACCESS, STATUS_SUCCESS},
        {FILE_READ_DATA, FILE_WRITE_ACCESS, STATUS_ACCESS_DENIED},
        {FILE_WRITE_DATA, kBoth, STATUS_ACCESS_DENIED},
        {FILE_READ_DATA | FILE_WRITE_DATA, kBoth, STATUS_SUCCESS},
    };
    for (const auto& row : cases) {
        const HANDLE handle = MustOpen(TestDevice::kName, row.granted);
        IO_STATUS_BLOCK ioStatus{};
        EXPECT_EQ(Control(handle, ioStatus, ControlCode(0x803, METHOD_BUFFERED, row.required)),
                  row.status)
            << row.granted << " for " << row.required;
        NtClose(handle);
    }
}

TEST_F(DeviceTest, BadArgumentsNeverReachTheDriver) {
    TestDevice device;
    const HANDLE handle = MustOpen();
    IO_STATUS_BLOCK ioStatus{};
    char byte = 0;
    const auto readOnly = const_cast<char*>("text that cannot be written");
    const ULONG direct = ControlCode(0x802, METHOD_OUT_DIRECT);
    const struct {
        ULONG code;
        void* input;
        void* output;
    } cases[] = {{kBuffered, kBadAddress, nullptr},
                 {kBuffered, nullptr, kBadAddress},
                 {kBuffered, nullptr, readOnly},
                 {direct, nullptr, readOnly},
                 {direct, kBadAddress, &byte}};
    for (const auto& row : cases) {
        EXPECT_EQ(Control(handle, ioStatus, row.code, nullptr, row.input, row.input ? 4 : 0,
                          row.output, row.output ? 1 : 0),
                  STATUS_ACCESS_VIOLATION)
            << &row - cases;
    }
    EXPECT_EQ(Control(handle, *static_cast<IO_STATUS_BLOCK*>(kBadAddress), kBuffered),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, handle), STATUS_OBJECT_TYPE_MISMATCH);
    for (const char* routine : {"NtDeviceIoControlFile", "MmProbeAndLockPages"}) {
        const FaultPlan fault({.routine = routine, .status = STATUS_NO_MEMORY});
        EXPECT_EQ(Control(handle, ioStatus, direct, nullptr, nullptr, 0, &byte, 1),
                  STATUS_NO_MEMORY)
            << routine;
    }
    EXPECT_EQ(device.Majors(), (std::vector<int>{IRP_MJ_CREATE}));
    NtClose(handle);
}

TEST_F(DeviceTest, CancellationPicksRequestsByStatusBlock) {
    TestDevice device;
    device.onRequest = [&](IRP* irp) { return device.Park(irp); };
    const HANDLE handle = MustOpen();
    const HANDLE other = MustOpen();
    IO_STATUS_BLOCK blocks[4] = {};
    for (std::size_t index = 0; index < 4; ++index) {
        blocks[index].Status = STATUS_PENDING;
        EXPECT_EQ(Control(index == 3 ? other : handle, blocks[index], kBuffered), STATUS_PENDING);
    }
    IO_STATUS_BLOCK result{};
    EXPECT_EQ(NtCancelIoFileEx(handle, &blocks[1], &result), STATUS_SUCCESS);
    EXPECT_EQ(blocks[0].Status, STATUS_PENDING);
    EXPECT_EQ(blocks[1].Status, STATUS_CANCELLED);
    EXPECT_EQ(NtCancelIoFileEx(handle, &blocks[1], &result), STATUS_NOT_FOUND);
    EXPECT_EQ(NtCancelIoFileEx(handle, &blocks[3], &result), STATUS_NOT_FOUND);
    {
        // Another process that has the handle cancels only what it sent itself.
        const auto stranger = machine_.StartProcess(Client());
        HANDLE theirs = nullptr;
        EXPECT_EQ(NtDuplicateObject(reinterpret_cast<HANDLE>(process_->Id()), handle,
                                    reinterpret_cast<HANDLE>(stranger->Id()), &theirs, 0, 0, 2),
                  STATUS_SUCCESS);
        ThreadScope scope(*stranger);
        EXPECT_EQ(NtCancelIoFileEx(theirs, nullptr, &result), STATUS_NOT_FOUND);
        NtClose(theirs);
    }
    EXPECT_EQ(NtCancelIoFileEx(handle, nullptr, &result), STATUS_SUCCESS);
    EXPECT_EQ(blocks[0].Status, STATUS_CANCELLED);
    EXPECT_EQ(blocks[2].Status, STATUS_CANCELLED);
    EXPECT_EQ(NtCancelIoFileEx(handle, nullptr, &result), STATUS_NOT_FOUND);
    EXPECT_EQ(blocks[3].Status, STATUS_PENDING);
    NtClose(handle);
    NtClose(other);  // its clean-up ends the last one
    EXPECT_EQ(blocks[3].Status, STATUS_CANCELLED);
    EXPECT_EQ(device.Majors().back(), IRP_MJ_CLOSE);
}

TEST_F(DeviceTest, RequestInFlightKeepsTheFileOpen) {
    TestDevice device;
    IRP* kept = nullptr;
    device.onRequest = [&](IRP* irp) {
        kept = irp;
        return STATUS_PENDING;
    };
    IO_STATUS_BLOCK ioStatus{};
    const HANDLE handle = MustOpen();
    EXPECT_EQ(Control(handle, ioStatus, kBuffered), STATUS_PENDING);
    IO_STATUS_BLOCK result{};
    EXPECT_EQ(NtCancelIoFileEx(handle, nullptr, &result), STATUS_SUCCESS);
    EXPECT_TRUE(kept->cancelled);  // and no more: the driver has set no routine
    NtClose(handle);
    EXPECT_EQ(device.Majors().back(), IRP_MJ_CLEANUP);
    TestDevice::Finish(kept, STATUS_CANCELLED);
    EXPECT_EQ(device.Majors().back(), IRP_MJ_CLOSE);
}

TEST_F(DeviceTest, PollingThreadSeesTheWholeResult) {
    TestDevice device;
    device.onRequest = [&](IRP* irp) { return device.Park(irp); };
    const HANDLE handle = MustOpen();
    for (ULONG_PTR round = 1; round <= 200; ++round) {
        IO_STATUS_BLOCK ioStatus{};
        ioStatus.Status = STATUS_PENDING;
        ULONG_PTR output = 0;
        ASSERT_EQ(Control(handle, ioStatus, kBuffered, nullptr, nullptr, 0, &output, sizeof output),
                  STATUS_PENDING);
        std::thread completer([&] {
            IRP* irp = device.TakeParked();
            std::memcpy(irp->systemBuffer.get(), &round, sizeof round);
            TestDevice::Finish(irp, STATUS_SUCCESS, sizeof round);
        });
        while (PolledStatus(ioStatus) == STATUS_PENDING) {
            std::this_thread::yield();
        }
        EXPECT_EQ(ioStatus.Information, sizeof round);
        EXPECT_EQ(output, round);
        completer.join();
    }
    NtClose(handle);
}

/// Sender, completer and canceller meet at every request; each must end it together exactly once.
TEST_F(DeviceTest, CancellationAndCompletionRaceForEachRequest) {
    constexpr int kRounds = 3000;
    TestDevice device;
    device.onRequest = [&](IRP* irp) { return device.Park(irp); };
    const HANDLE handle = MustOpen();
    const HANDLE event = MakeEvent();
    std::barrier start(3);
    std::barrier end(3);
    IO_STATUS_BLOCK ioStatus{};

    std::thread completer([&] {
        for (int round = 0; round < kRounds; ++round) {
            start.arrive_and_wait();
            if (IRP* irp = device.TakeParked()) TestDevice::Finish(irp, STATUS_SUCCESS, 1);
            end.arrive_and_wait();
        }
    });
    std::thread canceller([&] {
        ThreadScope scope(*process_);
        for (int round = 0; round < kRounds; ++round) {
            start.arrive_and_wait();
            IO_STATUS_BLOCK result{};
            NtCancelIoFileEx(handle, &ioStatus, &result);
            end.arrive_and_wait();
        }
    });
    int completed = 0;
    int cancelled = 0;
    for (int round = 0; round < kRounds; ++round) {
        // Every other request is sent while the two are under way.
        const bool startFirst = round % 2 != 0;
        if (startFirst) start.arrive_and_wait();
        EXPECT_EQ(Control(handle, ioStatus, kBuffered, event), STATUS_PENDING);
        if (!startFirst) start.arrive_and_wait();
        end.arrive_and_wait();
        // When both came too early, the request is still parked.
        if (IRP* irp = device.TakeParked()) TestDevice::Finish(irp, STATUS_SUCCESS, 1);
        EXPECT_EQ(Wait(event), STATUS_WAIT_0);
        completed += ioStatus.Status == STATUS_SUCCESS;
        cancelled += ioStatus.Status == STATUS_CANCELLED;
    }
    completer.join();
    canceller.join();
    EXPECT_EQ(completed + cancelled, kRounds);
    EXPECT_GT(completed, 0);
    EXPECT_GT(cancelled, 0);
    NtClose(event);
    NtClose(handle);
}

TEST_F(DeviceTest, BreakingTheRulesOfPacketsStopsTheMachine) {
    TestDevice device;
    IRP* kept = nullptr;
    const HANDLE handle = MustOpen();
    IO_STATUS_BLOCK ioStatus{};
    const auto rule = [](const std::optional<BugcheckRecord>& record) {
        return record ? static_cast<Rule>(record->parameters[0]) : Rule{};
    };

    device.onRequest = [&](IRP* irp) {
        kept = irp;
        return TestDevice::Finish(irp, STATUS_SUCCESS);
    };
    EXPECT_EQ(Control(handle, ioStatus, kBuffered), STATUS_SUCCESS);
    EXPECT_EQ(rule(CatchBugcheck([&] { CompleteIrp(kept); })), Rule::kRequestTwice);

    device.onRequest = [&](IRP* irp) { return device.Park(irp); };
    EXPECT_EQ(Control(handle, ioStatus, kBuffered), STATUS_PENDING);
    kept = device.TakeParked();
    SetCancelRoutine(kept, [](DEVICE_OBJECT*, IRP*) {});
    EXPECT_EQ(rule(CatchBugcheck([&] { TestDevice::Finish(kept, STATUS_SUCCESS); })),
              Rule::kRequestTwice);
    EXPECT_EQ(rule(CatchBugcheck([&] {
                  SetCancelRoutine(kept, nullptr);
                  TestDevice::Finish(kept, STATUS_PENDING);
              })),
              Rule::kRequestNever);
    TestDevice::Finish(kept, STATUS_SUCCESS);
    NtClose(handle);
}

}  // namespace

}  // namespace platform::device_tests
