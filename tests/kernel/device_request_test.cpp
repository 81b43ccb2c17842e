// Requests to devices: buffers, completion, cancellation, and the races between them.
#include "platform/kernel/syscalls.h"
#include "test_device.h"

#include <barrier>
#include <cstring>
#include <thread>

namespace platform::testing {

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
    device.onRequest = [](IRP* irp) {
        EXPECT_EQ(irp->inputLength, 3u);
        EXPECT_EQ(irp->outputLength, 8u);
        EXPECT_EQ(std::memcmp(irp->systemBuffer.get(), "abc", 3), 0);
        std::memcpy(irp->systemBuffer.get(), "12345678", 8);
        // A warning gives the caller its output, too.
        return TestDevice::Finish(irp, STATUS_BUFFER_OVERFLOW, 5);
    };
    const HANDLE handle = MustOpen();
    IO_STATUS_BLOCK ioStatus{};
    char input[] = "abc";
    char output[] = "--------";
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, input, 3, output, 8),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_STREQ(output, "12345---");
    EXPECT_EQ(ioStatus.Status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(ioStatus.Information, 5u);

    device.onRequest = [](IRP* irp) {
        std::memcpy(irp->systemBuffer.get(), "zzzzzzzz", 8);
        return TestDevice::Finish(irp, STATUS_UNSUCCESSFUL, 8);
    };
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, nullptr, 0, output, 8),
              STATUS_UNSUCCESSFUL);
    EXPECT_STREQ(output, "12345---");
    NtClose(handle);
}

TEST_F(DeviceTest, DirectRequestsLockTheOutput) {
    TestDevice device;
    device.onRequest = [](IRP* irp) {
        EXPECT_EQ(std::memcmp(irp->systemBuffer.get(), "in", 2), 0);
        if (irp->outputLength == 0) {
            EXPECT_EQ(irp->mdl, nullptr);
            return TestDevice::Finish(irp, STATUS_SUCCESS);
        }
        EXPECT_EQ(irp->mdl->Length(), irp->outputLength);
        std::memcpy(irp->mdl->SystemAddress(), "out", 3);
        return TestDevice::Finish(irp, STATUS_SUCCESS, 1000);  // means what the driver likes
    };
    const HANDLE handle = MustOpen();
    auto* output = static_cast<char*>(AllocateUserMemory(64));
    char input[] = "in";
    for (ULONG method : {METHOD_IN_DIRECT, METHOD_OUT_DIRECT}) {
        SCOPED_TRACE(method);
        const ULONG code = ControlCode(0x802, method);
        IO_STATUS_BLOCK ioStatus{};
        std::memset(output, 0, 64);
        EXPECT_EQ(Control(handle, ioStatus, code, nullptr, input, 2, output + 5, 10),
                  STATUS_SUCCESS);
        EXPECT_STREQ(output + 5, "out");
        EXPECT_EQ(ioStatus.Information, 1000u);
        EXPECT_EQ(Control(handle, ioStatus, code, nullptr, input, 2), STATUS_SUCCESS);
    }
    FreeUserMemory(output);
    NtClose(handle);
}

TEST_F(DeviceTest, NeitherRequestsPassTheCallersAddresses) {
    TestDevice device;
    char input = 0;
    device.onRequest = [&](IRP* irp) {
        EXPECT_EQ(irp->type3InputBuffer, &input);
        EXPECT_EQ(irp->userBuffer, kBadAddress);
        EXPECT_EQ(irp->systemBuffer, nullptr);
        EXPECT_EQ(irp->requestorMode, UserMode);
        EXPECT_EQ(&irp->thread->Owner(), process_.get());
        return TestDevice::Finish(irp, STATUS_SUCCESS);
    };
    const HANDLE handle = MustOpen();
    IO_STATUS_BLOCK ioStatus{};
    EXPECT_EQ(Control(handle, ioStatus, kNeither, nullptr, &input, 1, kBadAddress, 4),
              STATUS_SUCCESS);
    NtClose(handle);
}

TEST_F(DeviceTest, ReadsAndWritesCarryTheirBuffer) {
    TestDevice device;
    device.onRequest = [](IRP* irp) {
        EXPECT_EQ(irp->byteOffset, 7);
        std::byte* buffer = irp->systemBuffer.get();
        if (irp->major == IRP_MJ_WRITE) {
            EXPECT_EQ(std::memcmp(buffer, "data", irp->inputLength), 0);
            return TestDevice::Finish(irp, STATUS_SUCCESS, irp->inputLength);
        }
        std::memcpy(buffer, "text", irp->outputLength);
        return TestDevice::Finish(irp, STATUS_SUCCESS, irp->outputLength);
    };
    const HANDLE handle = MustOpen();
    IO_STATUS_BLOCK ioStatus{};
    LARGE_INTEGER offset{.QuadPart = 7};
    char buffer[] = "data";
    EXPECT_EQ(
        NtWriteFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, 4, &offset, nullptr),
        STATUS_SUCCESS);
    EXPECT_EQ(NtReadFile(handle, nullptr, nullptr, nullptr, &ioStatus, buffer, 4, &offset, nullptr),
              STATUS_SUCCESS);
    EXPECT_STREQ(buffer, "text");
    NtClose(handle);
}

TEST_F(DeviceTest, ControlCodesNameTheAccessTheyNeed) {
    TestDevice device;
    struct Case {
        ACCESS_MASK granted;
        ULONG required;
        NTSTATUS status;
    };
    const Case cases[] = {
        {FILE_READ_DATA, FILE_ANY_ACCESS, STATUS_SUCCESS},
        {FILE_READ_DATA, FILE_READ_ACCESS, STATUS_SUCCESS},
        {FILE_READ_DATA, FILE_WRITE_ACCESS, STATUS_ACCESS_DENIED},
        {FILE_WRITE_DATA, FILE_READ_ACCESS, STATUS_ACCESS_DENIED},
        {FILE_WRITE_DATA, FILE_READ_ACCESS | FILE_WRITE_ACCESS, STATUS_ACCESS_DENIED},
        {FILE_READ_DATA | FILE_WRITE_DATA, FILE_READ_ACCESS | FILE_WRITE_ACCESS, STATUS_SUCCESS},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(::testing::Message() << each.granted << " for " << each.required);
        const HANDLE handle = MustOpen(TestDevice::kName, each.granted);
        IO_STATUS_BLOCK ioStatus{};
        EXPECT_EQ(Control(handle, ioStatus, ControlCode(0x803, METHOD_BUFFERED, each.required)),
                  each.status);
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
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, kBadAddress, 4),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, nullptr, 0, kBadAddress, 4),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, nullptr, nullptr, 0, readOnly, 4),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, ioStatus, direct, nullptr, nullptr, 0, readOnly, 4),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, ioStatus, direct, nullptr, kBadAddress, 4, &byte, 1),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(handle, *static_cast<IO_STATUS_BLOCK*>(kBadAddress), kBuffered),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Control(nullptr, ioStatus, kBuffered), STATUS_INVALID_HANDLE);
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, handle), STATUS_OBJECT_TYPE_MISMATCH);
    for (const char* routine : {"NtDeviceIoControlFile", "MmProbeAndLockPages"}) {
        SCOPED_TRACE(routine);
        const FaultPlan fault({.routine = routine, .status = STATUS_NO_MEMORY});
        EXPECT_EQ(Control(handle, ioStatus, direct, nullptr, nullptr, 0, &byte, 1),
                  STATUS_NO_MEMORY);
    }
    EXPECT_EQ(device.Majors(), (std::vector<int>{IRP_MJ_CREATE}));
    NtClose(handle);
}

TEST_F(DeviceTest, AsynchronousRequestPendsUntilCompleted) {
    TestDevice device;
    device.onRequest = [&](IRP* irp) { return device.Park(irp); };
    const HANDLE handle = MustOpen();
    const HANDLE event = MakeEvent();
    NtSetEvent(event, nullptr);
    IO_STATUS_BLOCK ioStatus{};
    char output[4] = {};
    EXPECT_EQ(Control(handle, ioStatus, kBuffered, event, nullptr, 0, output, 4), STATUS_PENDING);
    EXPECT_FALSE(IsSet(event));  // sending clears it

    // Completion comes from a thread of no process of the machine, and above PASSIVE_LEVEL.
    std::thread([&] {
        IRP* irp = device.TakeParked();
        std::memcpy(irp->systemBuffer.get(), "done", 4);
        const KIRQL irql = KfRaiseIrql(DISPATCH_LEVEL);
        TestDevice::Finish(irp, STATUS_SUCCESS, 4);
        KeLowerIrql(irql);
    }).join();
    EXPECT_EQ(Wait(event), STATUS_WAIT_0);
    EXPECT_EQ(ioStatus.Status, STATUS_SUCCESS);
    EXPECT_EQ(ioStatus.Information, 4u);
    EXPECT_EQ(std::string_view(output, 4), "done");
    NtClose(event);
    NtClose(handle);
}

TEST_F(DeviceTest, PendingIsReturnedThoughTheRequestIsDoneAlready) {
    TestDevice device;
    device.onRequest = [](IRP* irp) {
        TestDevice::Finish(irp, STATUS_SUCCESS, 9);
        return STATUS_PENDING;
    };
    IO_STATUS_BLOCK ioStatus{};
    const HANDLE handle = MustOpen();
    EXPECT_EQ(Control(handle, ioStatus, kNeither), STATUS_PENDING);
    EXPECT_EQ(ioStatus.Information, 9u);
    NtClose(handle);

    const HANDLE waiting = MustOpen(TestDevice::kName, kReadWrite, FILE_SYNCHRONOUS_IO_NONALERT);
    EXPECT_EQ(Control(waiting, ioStatus, kNeither), STATUS_SUCCESS);
    NtClose(waiting);
}

TEST_F(DeviceTest, SynchronousRequestWaitsAndCanBeCancelled) {
    TestDevice device;
    std::barrier parked(2);
    device.onRequest = [&](IRP* irp) {
        const NTSTATUS status = device.Park(irp);
        parked.arrive_and_wait();
        return status;
    };
    const HANDLE handle = MustOpen(TestDevice::kName, kReadWrite, FILE_SYNCHRONOUS_IO_NONALERT);
    for (const bool cancel : {false, true}) {
        SCOPED_TRACE(cancel);
        std::thread helper([&] {
            ThreadScope scope(*process_);
            parked.arrive_and_wait();
            IO_STATUS_BLOCK ioStatus{};
            if (cancel) {
                EXPECT_EQ(NtCancelIoFileEx(handle, nullptr, &ioStatus), STATUS_SUCCESS);
            } else {
                TestDevice::Finish(device.TakeParked(), STATUS_SUCCESS, 3);
            }
        });
        IO_STATUS_BLOCK ioStatus{};
        const NTSTATUS expected = cancel ? STATUS_CANCELLED : STATUS_SUCCESS;
        EXPECT_EQ(Control(handle, ioStatus, kBuffered), expected);
        EXPECT_EQ(ioStatus.Status, expected);
        helper.join();
    }
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

}  // namespace platform::testing
