#include "platform/kernel/process.h"

#include "platform/kernel/event_object.h"
#include "platform/kernel/handle_table.h"
#include "platform/kernel/process_notify.h"
#include "platform/kernel/process_table.h"
#include "platform/machine.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>

namespace platform {
namespace {

HANDLE AsHandle(std::uintptr_t value) {
    return reinterpret_cast<HANDLE>(value);
}

/// What a notify routine was told.
struct Told {
    std::uintptr_t process, id;
    bool start;
    std::uintptr_t parent = 0, creator = 0;
    std::u16string image{};
    std::uintptr_t context = 0;  ///< the current process's id
    std::size_t handles = 0;     ///< open in that process

    bool operator==(const Told&) const = default;
};

std::vector<Told> told;
NTSTATUS verdict = STATUS_SUCCESS;

void NTAPI Watch(PEPROCESS process, HANDLE processId, PPS_CREATE_NOTIFY_INFO info) {
    Told entry{reinterpret_cast<std::uintptr_t>(PsGetProcessId(process)),
               reinterpret_cast<std::uintptr_t>(processId), info != nullptr};
    entry.context = reinterpret_cast<std::uintptr_t>(PsGetCurrentProcessId());
    entry.handles = CurrentProcess().Handles().OpenHandles().size();
    if (info != nullptr) {
        EXPECT_EQ(info->Size, sizeof(*info));
        EXPECT_EQ(info->CreatingThreadId.UniqueThread, PsGetCurrentThreadId());
        entry.parent = reinterpret_cast<std::uintptr_t>(info->ParentProcessId);
        entry.creator = reinterpret_cast<std::uintptr_t>(info->CreatingThreadId.UniqueProcess);
        entry.image = View(*info->ImageFileName);
        if (!NT_SUCCESS(verdict)) info->CreationStatus = verdict;
    }
    told.push_back(std::move(entry));
}

class Processes : public testing::Test {
protected:
    Processes() {
        told.clear();
        verdict = STATUS_SUCCESS;
    }
    /// Watches until the end of the test.
    struct Watching {
        Watching() { EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Watch, FALSE), STATUS_SUCCESS); }
        ~Watching() { EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Watch, TRUE), STATUS_SUCCESS); }
    };

    Machine machine_;
};

TEST_F(Processes, ThreadsBelongToTheInnermostScope) {
    EXPECT_EQ(PsGetCurrentProcessId(), AsHandle(kSystemProcessId));
    EXPECT_TRUE(PsIsSystemThread(PsGetCurrentThread()));
    const PETHREAD outside = PsGetCurrentThread();
    const auto first = machine_.StartProcess({.imagePath = u"\\a"});
    const auto second = machine_.StartProcess({.imagePath = u"\\b"});
    {
        const ThreadScope inFirst(*first, 4444);
        EXPECT_EQ(IoGetCurrentProcess(), Handle(*first));
        EXPECT_EQ(PsGetCurrentThreadId(), AsHandle(4444));
        EXPECT_FALSE(PsIsSystemThread(PsGetCurrentThread()));
        {
            const UserModeCall call("NtTest");
            EXPECT_EQ(PreviousMode(), UserMode);
            const ThreadScope inSecond(*second);
            EXPECT_EQ(IoGetCurrentProcess(), Handle(*second));
            EXPECT_NE(PsGetCurrentThreadId(), AsHandle(4444));
            EXPECT_EQ(PreviousMode(), KernelMode);
        }
        EXPECT_EQ(PreviousMode(), KernelMode);
        EXPECT_EQ(PsGetCurrentThreadId(), AsHandle(4444));
    }
    EXPECT_EQ(PsGetCurrentThread(), outside);
    PETHREAD elsewhere = nullptr;
    std::thread([&] { elsewhere = PsGetCurrentThread(); }).join();
    EXPECT_NE(elsewhere, outside);
}

TEST_F(Processes, IdsAreFoundAsLongAsTheProcessLives) {
    PEPROCESS found = nullptr;
    EXPECT_EQ(PsLookupProcessByProcessId(AsHandle(8000), &found), STATUS_INVALID_CID);
    auto process = machine_.StartProcess({.imagePath = u"\\x", .id = 8000});
    EXPECT_THROW(machine_.StartProcess({.id = 8000}), std::invalid_argument);
    ASSERT_EQ(PsLookupProcessByProcessId(AsHandle(8000), &found), STATUS_SUCCESS);
    EXPECT_EQ(found, Handle(*process));
    EXPECT_EQ(ReferenceCount(found), 3);
    ObfDereferenceObject(found);
    machine_.ExitProcess(*process);
    EXPECT_EQ(PsLookupProcessByProcessId(AsHandle(8000), &found), STATUS_INVALID_CID);
    EXPECT_EQ(PsGetProcessId(Handle(*process)), AsHandle(8000)) << "still there while referenced";
    machine_.SetSystemTime(123'456'789);
    const auto successor = machine_.StartProcess({.id = 8000});
    machine_.SetSystemTime(0);
    EXPECT_NE(successor.get(), process.get());
    EXPECT_EQ(PsGetProcessCreateTimeQuadPart(Handle(*successor)), 123'456'789);
    EXPECT_EQ(machine_.StartProcess({})->Id() % 4, 0u);
}

TEST_F(Processes, StartAndExitAreToldInTheRightContext) {
    const Watching watching;
    auto parent = machine_.StartProcess({.imagePath = u"\\parent", .id = 1000});
    auto child = machine_.StartProcess({.imagePath = u"\\child", .parentId = 1000, .id = 1004});
    {
        const ThreadScope inChild(*child);
        HANDLE event = nullptr;
        ASSERT_EQ(NtCreateEvent(&event, GENERIC_ALL, nullptr, NotificationEvent, FALSE),
                  STATUS_SUCCESS);
    }
    machine_.ExitProcess(*child);
    machine_.ExitProcess(*parent);
    EXPECT_EQ(told, (std::vector<Told>{
                        {1000, 1000, true, 0, kSystemProcessId, u"\\parent", kSystemProcessId},
                        {1004, 1004, true, 1000, 1000, u"\\child", 1000},
                        {1004, 1004, false, 0, 0, u"", 1004, 1},
                        {1000, 1000, false, 0, 0, u"", 1000},
                    }))
        << "the handle is closed after the exit was told";
    EXPECT_EQ(machine_.FindLeaks().lines,
              (std::vector<std::string>{"2 objects of type Process", "1 process notify routines"}))
        << "the references and the registration of this test";
    child = {};
    parent = {};
}

TEST_F(Processes, ARefusedStartEndsTheProcess) {
    const Watching watching;
    verdict = STATUS_ACCESS_DENIED;
    EXPECT_FALSE(machine_.StartProcess({.imagePath = u"\\bad", .id = 1000}));
    ASSERT_EQ(told.size(), 2u);
    EXPECT_TRUE(told[0].start);
    EXPECT_FALSE(told[1].start);
    EXPECT_FALSE(FindProcess(1000));
}

void NTAPI Ignore(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO) {}

TEST_F(Processes, NotifyRoutinesAreRegisteredOnce) {
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Ignore, TRUE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Ignore, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Ignore, FALSE), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(ProcessNotifyRoutineCount(), 1u);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Ignore, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Ignore, TRUE), STATUS_INVALID_PARAMETER);
}

std::latch* entered;
std::latch* mayLeave;
std::atomic<int> calls;
std::atomic<bool> left;

/// The first call stays until it may leave.
void NTAPI Linger(PEPROCESS, HANDLE, PPS_CREATE_NOTIFY_INFO info) {
    if (info == nullptr || ++calls != 1) return;
    entered->count_down();
    mayLeave->wait();
    left = true;
}

TEST_F(Processes, RemovingARoutineWaitsForRunningCalls) {
    std::latch enteredLatch(1), mayLeaveLatch(1);
    entered = &enteredLatch;
    mayLeave = &mayLeaveLatch;
    calls = 0;
    left = false;
    ASSERT_EQ(PsSetCreateProcessNotifyRoutineEx(Linger, FALSE), STATUS_SUCCESS);
    std::thread starter([&] { machine_.StartProcess({}); });
    enteredLatch.wait();
    std::atomic<bool> leftWhenRemoved{false};
    std::thread remover([&] {
        EXPECT_EQ(PsSetCreateProcessNotifyRoutineEx(Linger, TRUE), STATUS_SUCCESS);
        leftWhenRemoved = left.load();
    });
    // From the moment that the removal waits the routine is told of nothing new.
    for (int before = -1; before != calls;) {
        before = calls;
        machine_.StartProcess({});
    }
    EXPECT_EQ(ProcessNotifyRoutineCount(), 1u);
    mayLeaveLatch.count_down();
    remover.join();
    starter.join();
    EXPECT_TRUE(leftWhenRemoved);
    EXPECT_EQ(ProcessNotifyRoutineCount(), 0u);
}

struct SystemThreadRecord {
    std::latch done{1};
    bool isSystem = false;
    HANDLE process = nullptr;
    NTSTATUS terminated = STATUS_SUCCESS;
};

void NTAPI RecordAndTerminate(PVOID context) {
    auto* record = static_cast<SystemThreadRecord*>(context);
    record->isSystem = PsIsSystemThread(PsGetCurrentThread()) != FALSE;
    record->process = PsGetCurrentProcessId();
    record->done.count_down();
    PsTerminateSystemThread(STATUS_SUCCESS);
    std::abort();
}

TEST_F(Processes, SystemThreadsRunInTheSystemProcess) {
    SystemThreadRecord record;
    const auto process = machine_.StartProcess({});
    const ThreadScope inProcess(*process);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
    HANDLE thread = nullptr;
    ASSERT_EQ(PsCreateSystemThread(&thread, 0, &attributes, nullptr, nullptr, RecordAndTerminate,
                                   &record),
              STATUS_SUCCESS);
    record.done.wait();
    EXPECT_TRUE(record.isSystem);
    EXPECT_EQ(record.process, AsHandle(kSystemProcessId));
    EXPECT_TRUE(IsKernelHandle(thread));
    EXPECT_EQ(ZwClose(thread), STATUS_SUCCESS);
    EXPECT_EQ(PsTerminateSystemThread(STATUS_SUCCESS), STATUS_INVALID_PARAMETER)
        << "only for threads of PsCreateSystemThread";
}

TEST(SystemWork, WorkMayQueueAndWaitForFurtherWork) {
    std::atomic<int> ran{0};
    QueueSystemWork([&] {
        std::latch inner(1);
        QueueSystemWork([&] {
            EXPECT_TRUE(CurrentThread().IsSystemThread());
            inner.count_down();
            ++ran;
        });
        inner.wait();
        ++ran;
    });
    DrainSystemWork();
    EXPECT_EQ(ran.load(), 2);
}

}  // namespace
}  // namespace platform
