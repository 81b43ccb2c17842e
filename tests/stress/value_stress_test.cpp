// Threads of several processes set and delete the same values while processes come and go.
#include "channel/value_cache.h"
#include "intercept/operation_table.h"
#include "intercept/references.h"
#include "stress/stress_test.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

namespace stress {

namespace {

using zpregflt::RecordType;

constexpr int kKeys = 4;
constexpr int kNames = 12;  ///< with the keys, more values than a cache has entries
constexpr int kProcesses = 3;
constexpr int kThreadsPerProcess = 2;

std::u16string KeyPath(int number) {
    return u"\\REGISTRY\\MACHINE\\v" + platform::ToUtf16(std::to_string(number));
}

HANDLE OpenKey(int number) {
    std::u16string path = KeyPath(number);
    UNICODE_STRING name = platform::Describe(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE key = nullptr;
    EXPECT_EQ(NtCreateKey(&key, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr),
              STATUS_SUCCESS);
    return key;
}

/// No two sets give a value the same data, so every one that succeeds is a change.
class Changer {
public:
    Changer(unsigned seed, std::atomic<int>& changes)
        : random_(seed), seed_(seed), changes_(&changes) {}

    void Change(HANDLE key, int number) {
        const auto letter = static_cast<char16_t>(u'a' + random_() % kNames);
        std::u16string text(letter % 3 == 0 ? 20 : 3, letter);
        UNICODE_STRING name = platform::Describe(text);
        if (random_() % 4 == 0) {
            Note(NtDeleteValueKey(key, &name), RecordType::kValueDeleted, number);
            return;
        }
        std::array<char, 100> data{};
        const ULONG size = std::array<ULONG, 3>{16, 33, 100}[random_() % 3];
        std::snprintf(data.data(), data.size(), "%u %u", seed_, ++count_);
        Note(NtSetValueKey(key, &name, 0, REG_BINARY, data.data(), size), RecordType::kValueSet,
             number);
    }
    const RecordCounts& Expected() const { return expected_; }

private:
    void Note(NTSTATUS status, RecordType type, int number) {
        if (status == STATUS_SUCCESS) {
            ++expected_[{static_cast<std::uint32_t>(type), KeyPath(number)}];
            ++*changes_;
        } else {
            EXPECT_EQ(status, STATUS_OBJECT_NAME_NOT_FOUND);
        }
    }

    std::minstd_rand random_;
    unsigned seed_;
    unsigned count_ = 0;
    std::atomic<int>* changes_;
    RecordCounts expected_;
};

class ValueStressTest : public StressTest {
protected:
    void SetUp() override {
        Boot(0);
        holder_ = StartMonitored();
        const platform::ThreadScope thread(*holder_);
        for (int number = 0; number < kKeys; ++number)
            OpenKey(number);  // until the process ends
    }
    void TearDown() override {
        machine_.ExitProcess(*holder_);
        StressTest::TearDown();
    }

    /// Works with keys of its own process.
    void Work(platform::Process& process, Changer& changer) {
        const platform::ThreadScope thread(process);
        std::array<HANDLE, kKeys> keys{};
        for (int i = 0; !stop_.load(std::memory_order_relaxed); ++i) {
            WaitForRoom();
            const int number = i % kKeys;
            if (keys[number] == nullptr) keys[number] = OpenKey(number);
            changer.Change(keys[number], number);
            if (i % 64 == number) NtClose(std::exchange(keys[number], nullptr));
        }
        for (HANDLE key : keys) {
            if (key != nullptr) NtClose(key);
        }
    }

    /// Works with a key whose opener ends meanwhile: its cache and record outlive it.
    void WorkForOthers(platform::Process& process, Changer& changer) {
        while (!stop_.load(std::memory_order_relaxed)) {
            WaitForRoom();
            const auto opener = StartMonitored();
            HANDLE key = nullptr;
            {
                const platform::ThreadScope thread(*opener);
                EXPECT_EQ(NtDuplicateObject(reinterpret_cast<HANDLE>(opener->Id()), OpenKey(0),
                                            reinterpret_cast<HANDLE>(process.Id()), &key, 0, 0, 2),
                          STATUS_SUCCESS);
            }
            std::thread end([&] { machine_.ExitProcess(*opener); });
            {
                const platform::ThreadScope thread(process);
                for (int i = 0; i < 20; ++i)
                    changer.Change(key, 0);
                NtClose(key);
            }
            end.join();
        }
    }

    /// Changes wait until the client has seen enough of those before: none is to find no room.
    void WaitForRoom() {
        while (changes_ - arrived_ > 1000 && !stop_.load(std::memory_order_relaxed))
            std::this_thread::yield();
    }

    static void ExpectConsistentCache(platform::Process& process) {
        zpregflt::ProcessRecordRef record;
        zpregflt::ProcessContextRef context;
        const NTSTATUS status =
            ZPkPsGet(zpregflt::State.ProcessTracking, reinterpret_cast<HANDLE>(process.Id()),
                     record.Receive(), context.ReceiveBlock());
        EXPECT_EQ(status, STATUS_SUCCESS);
        if (context && context->ValueCachePointer() != nullptr) {
            EXPECT_TRUE(zpregflt::ValueCacheIsConsistent(context->ValueCachePointer()));
        }
    }

    platform::ObjectRef<platform::Process> holder_;
    std::atomic<bool> stop_{false};
    std::atomic<int> changes_{0};
    std::atomic<int> arrived_{0};
};

TEST_F(ValueStressTest, EveryChangeIsRecordedOnce) {
    std::vector<platform::ObjectRef<platform::Process>> processes;
    std::vector<Changer> changers;
    for (unsigned i = 0; i < kProcesses; ++i)
        processes.push_back(StartMonitored());
    for (unsigned i = 0; i <= kProcesses * kThreadsPerProcess; ++i)
        changers.emplace_back(i + 1, changes_);
    std::vector<std::thread> threads;
    for (int i = 0; i < kProcesses * kThreadsPerProcess; ++i) {
        threads.emplace_back([&, i] { Work(*processes[i % kProcesses], changers[i]); });
    }
    threads.emplace_back([&] { WorkForOthers(*processes[0], changers.back()); });

    LendingClient client(*client_, 16, 1);
    const auto end = std::chrono::steady_clock::now() + WorkTime(12);
    while (std::chrono::steady_clock::now() < end) {
        client.Step(false);
        client.Flush();
        arrived_ = Total(client.Delivered());
        for (const auto& process : processes)
            ExpectConsistentCache(*process);
    }
    stop_ = true;
    for (std::thread& thread : threads)
        thread.join();
    client.Finish();
    for (const auto& process : processes)
        machine_.ExitProcess(*process);

    EXPECT_TRUE(client.Faults().empty()) << client.Faults().front();
    RecordCounts expected;
    for (const Changer& changer : changers) {
        for (const auto& [id, count] : changer.Expected())
            expected[id] += count;
    }
    EXPECT_EQ(client.Delivered(), expected);
    EXPECT_GT(Total(expected), 1000);
}

}  // namespace

}  // namespace stress
