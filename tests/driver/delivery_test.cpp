// What becomes of a lent buffer: delivery, cancellation, the dump file and every failure on the
// way.
#include "driver/driver_fixture.h"
#include "platform/kernel/io.h"

#include <lock_guards.h>

#include <algorithm>
#include <cstring>
#include <thread>

namespace driver_test {

namespace {

using zpregflt::IOCTL_ZPRF_GET_BUFFER;
using zpregflt::IOCTL_ZPRF_SET_DUMP_FILE;
using MarkList = std::vector<std::uint64_t>;

class DeliveryTest : public DriverTest {
protected:
    /// The marks of each block of the dump file, once every work item is done.
    std::vector<MarkList> DumpedMarks() const {
        platform::DrainSystemWork();
        std::vector<MarkList> blocks;
        for (const auto& image : ReadDump(DumpPath()))
            blocks.push_back(Marks(ReadChain(image)));
        return blocks;
    }
    void SetDumpFile() { ASSERT_EQ(TheClient().SetDumpFile(DumpPath()), STATUS_SUCCESS); }
};

TEST_F(DeliveryTest, BuffersThatAreTaken) {
    StartWithoutBootBuffers();
    const std::pair<std::size_t, NTSTATUS> sizes[] = {{1, STATUS_INVALID_PARAMETER},
                                                      {0xFFFF, STATUS_INVALID_PARAMETER},
                                                      {0x10000, STATUS_PENDING},
                                                      {0x10001, STATUS_PENDING}};
    for (const auto& [size, status] : sizes) {
        Loan loan(TheClient(), size);
        EXPECT_EQ(loan.Send(), status) << size;
        EXPECT_EQ(IsListEmpty(&Pool.ActiveList), status != STATUS_PENDING) << size;
    }
    const struct {
        std::uintptr_t address;
        std::size_t size;
        NTSTATUS status;
    } bad[] = {{0, 0, STATUS_BUFFER_TOO_SMALL},
               {0, 0x10000, STATUS_INVALID_PARAMETER},
               {0x10000, 0x10000, STATUS_ACCESS_VIOLATION}};
    for (const auto& c : bad) {
        EXPECT_EQ(TheClient().Control(IOCTL_ZPRF_GET_BUFFER, nullptr, 0,
                                      reinterpret_cast<void*>(c.address), c.size),
                  c.status)
            << c.address << ", " << c.size;
    }
    EXPECT_TRUE(IsListEmpty(&Pool.ActiveList));
}

TEST_F(DeliveryTest, InformationIsTheNumberOfReservations) {
    StartWithoutBootBuffers();
    Loan loan(TheClient(), zpregflt::kMinimumBufferSize);
    std::ranges::fill(loan.Memory(), std::byte{0xA5});
    ASSERT_EQ(loan.Send(), STATUS_PENDING);
    WriteMark(1);
    const Space abandoned(100);
    abandoned.Release();
    WriteMark(2);
    TheClient().Flush();
    ASSERT_EQ(loan.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(loan.Information(), 3u);
    EXPECT_EQ(Marks(loan.Records()), (MarkList{1, 2}));
    const auto rest = loan.Memory().subspan(8 + 40 + 104 + 40);
    EXPECT_EQ(std::ranges::count(rest, std::byte{0xA5}), static_cast<std::ptrdiff_t>(rest.size()))
        << "bytes behind the last reservation keep what they held";
}

TEST_F(DeliveryTest, ABufferThatCameBackCanBeLentAgain) {
    StartWithoutBootBuffers();
    const auto loan = TheClient().Lend();
    for (const std::uint64_t round : {1, 2, 3}) {
        WriteMark(round);
        TheClient().Flush();
        ASSERT_EQ(loan->Wait(), STATUS_SUCCESS);
        EXPECT_EQ(Marks(loan->Records()), MarkList{round});
        EXPECT_EQ(loan->Send(), STATUS_PENDING);
    }
}

// --- Cancellation --------------------------------------------------------------------------------

TEST_F(DeliveryTest, CancelledBufferGoesToTheDumpFile) {
    const struct {
        bool dumpFile;
        std::vector<std::uint32_t> reservations;
        std::vector<std::size_t> lengths;  ///< of the blocks in the dump file
    } cases[] = {{true, {40, 13}, {8 + 40 + 16}}, {true, {}, {}}, {false, {40}, {}}};
    for (const auto& c : cases) {
        Boot({});
        StartWithoutBootBuffers();
        if (c.dumpFile) SetDumpFile();
        auto loan = TheClient().Lend();
        for (const std::uint32_t size : c.reservations)
            Space(size).Release();
        loan->Cancel();
        EXPECT_EQ(loan->Wait(), STATUS_CANCELLED);
        EXPECT_EQ(loan->Information(), 0u);
        EXPECT_TRUE(IsListEmpty(&Pool.ActiveList));
        EXPECT_FALSE(Space(8)) << "it takes no more records";
        platform::DrainSystemWork();
        std::vector<std::size_t> lengths;
        if (c.dumpFile) {
            for (const auto& image : ReadDump(DumpPath()))
                lengths.push_back(image.size());
        }
        EXPECT_EQ(lengths, c.lengths);
        loan.reset();
        Stop();
    }
}

TEST_F(DeliveryTest, CancelledRequestWaitsForWriters) {
    for (const bool sealed : {false, true}) {
        Boot({});
        StartWithoutBootBuffers();
        SetDumpFile();
        auto loan = TheClient().Lend();
        const Space writer(40);
        ASSERT_TRUE(writer);
        if (sealed) zpregflt::MemFlush();
        loan->Cancel();
        EXPECT_TRUE(loan->IsOut()) << "the client's memory is still written to";
        writer.Commit(7);
        writer.Release();
        EXPECT_EQ(loan->Wait(), STATUS_CANCELLED);
        EXPECT_EQ(DumpedMarks(), std::vector<MarkList>{{7}});
        loan.reset();
        Stop();
    }
}

/// Delivery and cancellation race for a request whose buffer is full: one of them ends it, once.
TEST_F(DeliveryTest, CancelRacesWithDelivery) {
    StartWithoutBootBuffers();
    SetDumpFile();
    constexpr int kRounds = 300;
    std::size_t delivered = 0;
    std::size_t cancelled = 0;
    for (int round = 0; round < kRounds; ++round) {
        const auto loan = TheClient().Lend();
        WriteMark(1);
        std::atomic<bool> go{false};
        std::thread flusher([&] {
            go.wait(false);
            TheClient().Flush();
        });
        go = true;
        go.notify_one();
        {
            const ThreadScope thread(TheClient().Owner());
            IO_STATUS_BLOCK ioStatus = {};
            NtCancelIoFileEx(TheClient().Device(), nullptr, &ioStatus);
        }
        flusher.join();
        switch (loan->Wait()) {
            case STATUS_SUCCESS:
                ASSERT_EQ(Marks(loan->Records()), MarkList{1});
                ++delivered;
                break;
            case STATUS_CANCELLED:
                ++cancelled;
                break;
            default:
                FAIL() << "another status";
        }
    }
    EXPECT_EQ(delivered + cancelled, static_cast<std::size_t>(kRounds));
    EXPECT_EQ(DumpedMarks().size(), cancelled) << "each record arrives once";
}

// --- Shutdown ------------------------------------------------------------------------------------

TEST_F(DeliveryTest, ShutdownDumpsPendingThenSealedThenActive) {
    Start();
    SetDumpFile();
    WriteMark(1);
    zpregflt::MemFlush();
    const auto loan = TheClient().Lend(0x20000);
    // Pending: the first boot buffer. Active: a boot buffer, the client's and another boot buffer.
    ASSERT_EQ(Sequences(Pool.PendingList).size(), 1u);
    const Space inSealed(0xFF00);
    const Space inClient(0x1000);
    ASSERT_NE(inClient.Buffer()->request, nullptr);
    ASSERT_EQ(Sequences(Pool.SealedList).size(), 1u);
    inClient.Commit(3);
    inClient.Release();

    std::thread system([&] { machine_->NotifyShutdown(); });
    const auto listsAreTaken = [] {
        const QueuedSpinLockGuard guard(Pool.lock);
        return !IsListEmpty(&Pool.DumpList);
    };
    while (!listsAreTaken())
        std::this_thread::yield();
    // The dump waits for the writer; there is nothing to reserve in meanwhile.
    EXPECT_FALSE(Space(8));
    EXPECT_EQ(Pool.reserveFailed[static_cast<int>(zpregflt::PoolPhase::kShutdown)], 1);
    inSealed.Commit(2);
    inSealed.Release();
    system.join();

    const auto images = ReadDump(DumpPath());
    EXPECT_EQ(DumpedMarks(), (std::vector<MarkList>{{1}, {2}, {3}, {}}));
    ASSERT_EQ(images.size(), 4u);
    EXPECT_EQ(images[3].size(), 8u) << "an empty buffer is its header";
    // The sealed buffer's last release has waited for the end of the dump.
    EXPECT_TRUE(IsListEmpty(&Pool.DumpList));
    EXPECT_EQ(Sequences(Pool.PendingList).size(), 1u);
    TheClient().Flush();
    ASSERT_EQ(loan->Wait(), STATUS_SUCCESS);
    EXPECT_EQ(Marks(loan->Records()), (MarkList{3, 2}));
}

TEST_F(DeliveryTest, ShutdownDoesNotDumpWithdrawnBuffers) {
    StartWithoutBootBuffers();
    SetDumpFile();
    const auto withdrawn = TheClient().Lend();
    const Space writer(40);
    writer.Commit(1);
    withdrawn->Cancel();
    const auto loan = TheClient().Lend();
    WriteMark(2);
    machine_->NotifyShutdown();
    EXPECT_EQ(DumpedMarks(), std::vector<MarkList>{{2}});
    writer.Release();
    EXPECT_EQ(withdrawn->Wait(), STATUS_CANCELLED);
    EXPECT_EQ(DumpedMarks(), (std::vector<MarkList>{{2}, {1}})) << "written when it is finished";
    EXPECT_TRUE(loan->IsOut());
}

// --- The dump file -------------------------------------------------------------------------------

TEST_F(DeliveryTest, DumpFileHandles) {
    StartWithoutBootBuffers();
    const auto send = [&](HANDLE handle) {
        return TheClient().SetNumber(
            IOCTL_ZPRF_SET_DUMP_FILE,
            static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(handle)));
    };
    {
        const ThreadScope thread(TheClient().Owner());
        const std::u16string name = platform::HostFileName(DumpPath());
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, 0x1F0003, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
        const HANDLE appendOnly =
            OpenFile(name, FILE_APPEND_DATA | SYNCHRONIZE, FILE_OVERWRITE_IF, 0x20);
        const HANDLE readOnly = OpenFile(name, GENERIC_READ | SYNCHRONIZE, FILE_OPEN, 0x20);
        ASSERT_TRUE(appendOnly != nullptr && readOnly != nullptr);
        for (const HANDLE handle :
             {HANDLE{nullptr}, reinterpret_cast<HANDLE>(0x7FFC), event, readOnly, appendOnly}) {
            EXPECT_EQ(send(handle), STATUS_INVALID_PARAMETER) << handle;
        }
        for (const HANDLE handle : {event, readOnly, appendOnly})
            NtClose(handle);
    }
    {
        const FaultPlan plan(
            {.routine = "ObOpenObjectByPointer", .status = STATUS_INSUFFICIENT_RESOURCES});
        EXPECT_EQ(TheClient().SetDumpFile(DumpPath()), STATUS_INSUFFICIENT_RESOURCES);
    }
    EXPECT_EQ(TheClient().SetDumpFile(DumpPath()), STATUS_SUCCESS);
    const std::string otherPath = DumpPath() + "_other";
    EXPECT_EQ(TheClient().SetDumpFile(otherPath), STATUS_OBJECT_NAME_COLLISION);
    EXPECT_EQ(send(nullptr), STATUS_OBJECT_NAME_COLLISION);
    const auto loan = TheClient().Lend();
    WriteMark(1);
    loan->Cancel();
    EXPECT_EQ(DumpedMarks(), std::vector<MarkList>{{1}}) << "the first file stays";
    EXPECT_TRUE(ReadDump(otherPath).empty());
    std::remove(otherPath.c_str());
}

TEST_F(DeliveryTest, OneDumpFileOfTwoSetAtOnce) {
    StartWithoutBootBuffers();
    std::atomic<int> set{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            if (TheClient().SetDumpFile(DumpPath()) == STATUS_SUCCESS) ++set;
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(set, 1);
}

TEST_F(DeliveryTest, FailedWriteEndsTheShutdownDump) {
    // Two writes for each of two buffers; the file ends with the last whole write.
    for (std::uint64_t failing = 1; failing <= 4; ++failing) {
        Boot({});
        StartWithoutBootBuffers();
        SetDumpFile();
        auto first = TheClient().Lend();
        auto second = TheClient().Lend();
        WriteMark(1);
        {
            const FaultPlan plan(
                {.routine = "ZwWriteFile", .nth = failing, .status = STATUS_DISK_FULL});
            machine_->NotifyShutdown();
            EXPECT_EQ(plan.MatchingCalls(), failing) << "nothing is written after the failure";
        }
        std::FILE* file = std::fopen(DumpPath().c_str(), "rb");
        ASSERT_NE(file, nullptr);
        std::fseek(file, 0, SEEK_END);
        const long lengths[] = {0, 8, 8 + 48, 8 + 48 + 8};
        EXPECT_EQ(std::ftell(file), lengths[failing - 1]);
        std::fclose(file);
        TheClient().Flush();
        EXPECT_EQ(first->Wait(), STATUS_SUCCESS) << "the buffers are back at work";
        EXPECT_TRUE(second->IsOut());
        first.reset();
        second.reset();
        Stop();
    }
}

TEST_F(DeliveryTest, LostImagesDoNotKeepTheRequest) {
    const platform::PlannedFault faults[] = {
        {.routine = "ZwWriteFile"},
        {.routine = "WdfWorkItemCreate"},
        {.routine = "ExAllocatePoolWithTag", .tag = MakeTag("ZrWi")},
    };
    for (const platform::PlannedFault& fault : faults) {
        Boot({});
        StartWithoutBootBuffers();
        SetDumpFile();
        auto loan = TheClient().Lend();
        WriteMark(1);
        {
            const FaultPlan plan(fault);
            loan->Cancel();
            EXPECT_EQ(loan->Wait(), STATUS_CANCELLED) << fault.routine;
            platform::DrainSystemWork();
            EXPECT_TRUE(plan.Fired()) << fault.routine;
        }
        EXPECT_EQ(loan->Send(), STATUS_PENDING);
        WriteMark(2);
        loan->Cancel();
        EXPECT_EQ(DumpedMarks(), std::vector<MarkList>{{2}}) << fault.routine;
        loan.reset();
        Stop();
    }
}

// --- Failures on the way into the pool -----------------------------------------------------------

TEST_F(DeliveryTest, FailedRequestLeavesNoBuffer) {
    StartWithoutBootBuffers();
    constexpr NTSTATUS kPlanned = STATUS_DEVICE_BUSY;
    const std::pair<platform::PlannedFault, NTSTATUS> cases[] = {
        {{.routine = "WdfObjectAllocateContext", .status = kPlanned}, kPlanned},
        {{.routine = "WdfRequestProbeAndLockUserBufferForWrite", .status = kPlanned}, kPlanned},
        {{.routine = "WdfDeviceEnqueueRequest", .status = kPlanned}, kPlanned},
        {{.routine = "ExAllocateFromNPagedLookasideList", .tag = MakeTag("ZRfm")},
         STATUS_NO_MEMORY},
        {{.routine = "WdfRequestForwardToIoQueue", .status = kPlanned}, kPlanned},
    };
    for (const auto& [fault, expected] : cases) {
        SCOPED_TRACE(fault.routine);
        Loan loan(TheClient(), zpregflt::kMinimumBufferSize);
        {
            const FaultPlan plan(fault);
            EXPECT_EQ(loan.Send(), expected);
            EXPECT_TRUE(plan.Fired());
        }
        EXPECT_TRUE(IsListEmpty(&Pool.ActiveList));
        EXPECT_TRUE(IsListEmpty(&Pool.SealedList));
        EXPECT_FALSE(Space(8));
        EXPECT_EQ(loan.Send(), STATUS_PENDING);
    }
}

}  // namespace

}  // namespace driver_test
