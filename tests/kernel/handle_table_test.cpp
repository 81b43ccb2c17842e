#include "platform/kernel/handle_table.h"

#include "kernel/test_object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/process_table.h"
#include "platform/kernel/syscalls.h"
#include "platform/kernel/verifier.h"

#include <gtest/gtest.h>

#include <barrier>
#include <thread>

namespace platform {
namespace {

using Happenings = std::vector<std::string>;

HANDLE AsHandle(std::uintptr_t value) {
    return reinterpret_cast<HANDLE>(value);
}

/// Two processes, with the host thread attached to the first.
class Handles : public testing::Test {
protected:
    ~Handles() override {
        const ThreadScope inOther(*other_);
        CloseAllHandles(*other_);
        RemoveProcess(*other_);
        CloseAllHandles(*process_);
        RemoveProcess(*process_);
    }
    static ObjectRef<Process> NewProcess() {
        auto process = ObjectRef<Process>::Adopt(
            CreateObject<Process>(kProcessType, AllocateId(), std::uintptr_t{0}, std::u16string(),
                                  std::int64_t{0}, Token{}));
        EXPECT_TRUE(EnterProcess(*process));
        return process;
    }
    HANDLE Open(ACCESS_MASK granted = kTestRead, ULONG attributes = 0) {
        HANDLE handle = nullptr;
        EXPECT_EQ(CreateHandle(object_.get(), granted, attributes, &handle), STATUS_SUCCESS);
        return handle;
    }
    static NTSTATUS Reference(HANDLE handle, ACCESS_MASK desired = 0,
                              KPROCESSOR_MODE mode = UserMode,
                              const ObjectType* type = &kTestType) {
        void* body = nullptr;
        const NTSTATUS status = ReferenceHandle(handle, desired, type, mode, &body);
        if (NT_SUCCESS(status)) DereferenceObject(body);
        return status;
    }
    static HANDLE IdOf(Process& process) { return AsHandle(process.Id()); }

    Happenings log_;
    ObjectRef<TestObject> object_ = MakeTestObject(log_);
    ObjectRef<Process> process_ = NewProcess();
    ObjectRef<Process> other_ = NewProcess();
    ThreadScope scope_{*process_};
};

TEST_F(Handles, AreMultiplesOfFourLowestFreeFirst) {
    constexpr std::uintptr_t kMany = 5000;
    for (std::uintptr_t index = 1; index <= kMany; ++index) {
        ASSERT_EQ(Open(), AsHandle(index * 4));
    }
    for (const std::uintptr_t closed : {kMany * 4, std::uintptr_t{12}, std::uintptr_t{4}}) {
        EXPECT_EQ(NtClose(AsHandle(closed)), STATUS_SUCCESS);
    }
    for (const std::uintptr_t next : {std::uintptr_t{4}, std::uintptr_t{12}, kMany * 4}) {
        EXPECT_EQ(Open(), AsHandle(next));
    }
    EXPECT_EQ(ReferenceCount(object_.get()), 1 + static_cast<long>(kMany));
    CloseAllHandles(*process_);
    EXPECT_EQ(ReferenceCount(object_.get()), 1);
}

TEST_F(Handles, AreCheckedForExistenceTypeAndAccess) {
    const HANDLE handle = Open(kTestRead);
    const HANDLE kernelHandle = Open(kTestRead, OBJ_KERNEL_HANDLE);
    const struct {
        const char* what;
        HANDLE handle;
        ACCESS_MASK desired;
        KPROCESSOR_MODE mode;
        const ObjectType* type;
        NTSTATUS status;
    } cases[] = {
        {"plain", handle, kTestRead, UserMode, &kTestType, STATUS_SUCCESS},
        {"tag bits", AsHandle(7), kTestRead, UserMode, &kTestType, STATUS_SUCCESS},
        {"any type", handle, kTestRead, UserMode, nullptr, STATUS_SUCCESS},
        {"not granted", handle, kTestWrite, UserMode, &kTestType, STATUS_ACCESS_DENIED},
        {"kernel asks no access", handle, kTestWrite, KernelMode, &kTestType, STATUS_SUCCESS},
        {"type before access", handle, kTestWrite, UserMode, &kProcessType,
         STATUS_OBJECT_TYPE_MISMATCH},
        {"type in kernel mode", handle, 0, KernelMode, &kProcessType, STATUS_OBJECT_TYPE_MISMATCH},
        {"null", nullptr, 0, UserMode, nullptr, STATUS_INVALID_HANDLE},
        {"never opened", AsHandle(400), 0, UserMode, nullptr, STATUS_INVALID_HANDLE},
        {"out of range", AsHandle(0x7FFFFFFFFFFFFFFC), 0, KernelMode, nullptr,
         STATUS_INVALID_HANDLE},
        {"kernel handle from user mode", kernelHandle, 0, UserMode, nullptr, STATUS_INVALID_HANDLE},
        {"kernel handle", kernelHandle, kTestWrite, KernelMode, &kTestType, STATUS_SUCCESS},
        {"no such kernel handle", AsHandle(0xFFFFFFFF80FFFFFC), 0, KernelMode, nullptr,
         STATUS_INVALID_HANDLE},
        {"current process", AsHandle(~0ull), 0, UserMode, &kProcessType, STATUS_SUCCESS},
        {"current thread", AsHandle(~1ull), 0, UserMode, &kThreadType, STATUS_SUCCESS},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(Reference(row.handle, row.desired, row.mode, row.type), row.status) << row.what;
    }
    EXPECT_EQ(ReferenceCount(object_.get()), 3) << "failed look-ups must not keep references";
    EXPECT_EQ(ZwClose(kernelHandle), STATUS_SUCCESS);
}

TEST_F(Handles, OfTheKernelHaveTheirOwnPatternAndServeEveryProcess) {
    const HANDLE handle = Open(kTestRead, OBJ_KERNEL_HANDLE);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(handle) & 0xFFFFFFFF80000003, 0xFFFFFFFF80000000);
    EXPECT_EQ(NtClose(handle), STATUS_INVALID_HANDLE);
    const ThreadScope elsewhere(*other_);
    EXPECT_EQ(Reference(handle, 0, KernelMode), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    EXPECT_EQ(log_, (Happenings{"before", "after", "close kernel lastOfProcess lastOfAll"}));
    const auto record = CatchBugcheck([handle] { ZwClose(handle); });
    ASSERT_TRUE(record);
    EXPECT_EQ(record->parameters[0], static_cast<std::uintptr_t>(Rule::kHandleInvalid));
    EXPECT_EQ(NtClose(AsHandle(4)), STATUS_INVALID_HANDLE) << "user mode may try";
}

TEST_F(Handles, CloseTellsWhichWasTheLast) {
    const HANDLE first = Open();
    const HANDLE second = Open();
    HANDLE elsewhere = nullptr;
    ASSERT_EQ(other_->Handles().Insert(object_.get(), kTestRead, &elsewhere), STATUS_SUCCESS);
    object_ = {};
    EXPECT_EQ(NtClose(first), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(second), STATUS_SUCCESS);
    EXPECT_EQ(NtClose(second), STATUS_INVALID_HANDLE);
    const ThreadScope inOther(*other_);
    EXPECT_EQ(NtClose(elsewhere), STATUS_SUCCESS);
    EXPECT_EQ(log_, (Happenings{"before", "after", "close",                          //
                                "before", "after", "close lastOfProcess",            //
                                "before", "after", "close lastOfProcess lastOfAll",  //
                                "destroy"}));
}

TEST_F(Handles, AreDuplicatedIntoOtherProcesses) {
    const HANDLE source = Open(kTestRead | READ_CONTROL);
    HANDLE moved = nullptr;
    const auto duplicate = [&](HANDLE process, HANDLE handle, ACCESS_MASK access, ULONG options) {
        return NtDuplicateObject(process, handle, IdOf(*other_), &moved, access, 0, options);
    };
    ASSERT_EQ(duplicate(IdOf(*process_), source, GENERIC_READ, 0), STATUS_SUCCESS);
    EXPECT_EQ(moved, AsHandle(4));
    EXPECT_EQ(duplicate(IdOf(*process_), source, kTestWrite, 0), STATUS_ACCESS_DENIED);
    EXPECT_EQ(duplicate(AsHandle(0xFFFC), source, 0, 2), STATUS_INVALID_HANDLE);
    EXPECT_EQ(duplicate(IdOf(*process_), AsHandle(400), 0, 2), STATUS_INVALID_HANDLE);
    // The same access, and the source closed.
    ASSERT_EQ(duplicate(IdOf(*process_), source, 0, 3), STATUS_SUCCESS);
    EXPECT_EQ(Reference(source), STATUS_INVALID_HANDLE);
    const ThreadScope inOther(*other_);
    EXPECT_EQ(Reference(moved, kTestRead | READ_CONTROL), STATUS_SUCCESS);
    EXPECT_EQ(Reference(moved, kTestWrite), STATUS_ACCESS_DENIED);
}

TEST_F(Handles, OneOfSeveralClosersWins) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::barrier round(kThreads + 1);
    HANDLE handle = nullptr;
    std::atomic<int> closed{0};
    std::vector<std::jthread> threads;
    for (int index = 0; index < kThreads; ++index) {
        threads.emplace_back([&] {
            const ThreadScope inProcess(*process_);
            for (int count = 0; count < kRounds; ++count) {
                round.arrive_and_wait();
                if (process_->Handles().Remove(handle, object_.get())) {
                    DereferenceObject(object_.get());
                    ++closed;
                }
                round.arrive_and_wait();
            }
        });
    }
    for (int count = 0; count < kRounds; ++count) {
        handle = Open();
        round.arrive_and_wait();
        round.arrive_and_wait();
        ASSERT_EQ(closed.load(), count + 1);
    }
    threads.clear();
    EXPECT_EQ(ReferenceCount(object_.get()), 1);
}

/// Threads that open, look up and close in one table at the same time: every look-up gives one of
/// the two objects, and all references are given back.
TEST_F(Handles, SurviveOpeningLookingUpAndClosingAtOnce) {
    constexpr int kThreads = 4;
    constexpr int kRounds = 3000;
    Happenings otherLog;
    ObjectRef<TestObject> second = MakeTestObject(otherLog);
    HandleTable& table = process_->Handles();
    std::barrier start(kThreads);
    std::atomic<long> found{0};
    const auto work = [&](int seed) {
        start.arrive_and_wait();
        for (int count = 0; count < kRounds; ++count) {
            TestObject* mine = (count + seed) % 2 == 0 ? object_.get() : second.get();
            HANDLE handle = nullptr;
            if (!NT_SUCCESS(table.Insert(mine, kTestRead, &handle))) std::abort();
            ACCESS_MASK granted = 0;
            for (std::uintptr_t value = 4; value <= 4 * kThreads; value += 4) {
                void* body = table.Reference(AsHandle(value), &granted);
                if (body == nullptr) continue;
                if (body != object_.get() && body != second.get()) std::abort();
                ++found;
                DereferenceObject(body);
            }
            if (!table.Remove(handle, mine)) std::abort();
            DereferenceObject(mine);
        }
    };
    {
        std::vector<std::jthread> threads;
        for (int index = 0; index < kThreads; ++index) {
            threads.emplace_back(work, index);
        }
    }
    EXPECT_GE(found.load(), long{kThreads} * kRounds) << "each finds at least its own";
    EXPECT_EQ(ReferenceCount(object_.get()), 1);
    EXPECT_EQ(ReferenceCount(second.get()), 1);
    EXPECT_TRUE(table.OpenHandles().empty());
}

}  // namespace
}  // namespace platform
