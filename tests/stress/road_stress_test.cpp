// Many threads on the road of an operation while buffers are lent, cancelled, flushed and dumped.
#include "channel/memory.h"
#include "client/dump_file.h"
#include "intercept/operation_table.h"
#include "records/record_format.h"
#include "stress/stress_test.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <cstdio>
#include <thread>

namespace stress {

namespace {

constexpr int kWorkers = 8;

constexpr char16_t kSharedKey[] = u"\\REGISTRY\\MACHINE\\shared";

/// Creates keys, flushes them through a second handle, and deletes them again; flushes a key in
/// between that all workers have open, so that they meet at its cached path.
class Worker {
public:
    Worker(platform::Process& process, int number) : process_(process), number_(number) {}

    void Run(const std::atomic<bool>& stop) {
        const platform::ThreadScope thread(process_);
        const HANDLE shared = OpenKey(kSharedKey);
        for (int i = 0; !stop.load(std::memory_order_relaxed); ++i) {
            Note(NtFlushKey(shared), zpregflt::RecordType::kKeyFlushed, kSharedKey);
            WorkOnKey(u"\\REGISTRY\\MACHINE\\w" + Number(number_) + u"_" + Number(i));
        }
        NtClose(shared);
    }
    const RecordCounts& Expected() const { return expected_; }
    int Failures() const { return failures_; }

private:
    static std::u16string Number(int value) { return platform::ToUtf16(std::to_string(value)); }

    HANDLE OpenKey(const std::u16string& path) {
        UNICODE_STRING name = platform::Describe(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE opened = nullptr;
        if (!NT_SUCCESS(NtOpenKey(&opened, KEY_ALL_ACCESS, &attributes))) ++failures_;
        return opened;
    }

    void WorkOnKey(const std::u16string& path) {
        UNICODE_STRING name = platform::Describe(path);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        HANDLE created = nullptr;
        Note(NtCreateKey(&created, KEY_ALL_ACCESS, &attributes, 0, nullptr, 0, nullptr),
             zpregflt::RecordType::kKeyCreated, path);
        const HANDLE opened = OpenKey(path);
        Note(NtFlushKey(opened), zpregflt::RecordType::kKeyFlushed, path);
        Note(NtFlushKey(created), zpregflt::RecordType::kKeyFlushed, path);
        Note(NtDeleteKey(opened), zpregflt::RecordType::kKeyDeleted, path);
        NtClose(opened);
        NtClose(created);
    }

    void Note(NTSTATUS status, zpregflt::RecordType type, const std::u16string& path) {
        if (!NT_SUCCESS(status)) {
            ++failures_;
            return;
        }
        ++expected_[{static_cast<std::uint32_t>(type), path}];
    }

    platform::Process& process_;
    int number_;
    RecordCounts expected_;
    int failures_ = 0;
};

void Add(RecordCounts& sum, const RecordCounts& counts) {
    for (const auto& [id, count] : counts)
        sum[id] += count;
}

RecordCounts ReadDumpFile(const std::string& path) {
    RecordCounts counts;
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return counts;
    zpregmon::DumpFileReader reader(file);
    zpregmon::Event event;
    while (reader.Next(event)) {
        ++counts[{static_cast<std::uint32_t>(event.Type()),
                  std::u16string(event.Key().value_or(u"(no name)"))}];
    }
    EXPECT_FALSE(reader.Error()) << reader.Error()->what << " at " << reader.Error()->offset;
    std::fclose(file);
    return counts;
}

class RoadStressTest : public StressTest, public testing::WithParamInterface<bool> {
protected:
    void SetUp() override {
        Boot(zpregflt::operation::kCreateKeyEx | zpregflt::operation::kFlushKey);
        monitored_ = StartMonitored();
        machine_.SetRegistryDword(kSharedKey, u"Version", 1);
        dumpPath_ = testing::TempDir() + "zpregflt_stress_" + std::to_string(::getpid());
    }
    void TearDown() override {
        machine_.ExitProcess(*monitored_);
        StressTest::TearDown();
        std::remove(dumpPath_.c_str());
    }

    platform::ObjectRef<platform::Process> monitored_;
    std::string dumpPath_;
};

std::int64_t RecordsWritten() {
    std::int64_t written = 0;
    for (const zpregflt::OperationEntry& row : zpregflt::OperationTable)
        written += row.Log;
    return written;
}

/// Every record that was written is delivered once or lies in the dump file, whatever happens to
/// its buffer. A dump of the whole pool writes buffers that are delivered later as well, so with
/// those going on the dump file may hold more.
TEST_P(RoadStressTest, EveryWrittenRecordArrives) {
    const bool dumpAll = GetParam();
    std::atomic<bool> stop{false};
    std::atomic<bool> workersDone{false};
    std::vector<Worker> workers;
    for (int i = 0; i < kWorkers; ++i)
        workers.emplace_back(*monitored_, i);

    RecordCounts delivered;
    std::vector<std::string> faults;
    int cancelled = 0;
    std::thread clientThread([&] {
        LendingClient first(*client_, 6, 1);
        EXPECT_EQ(first.SetDumpFile(dumpPath_), STATUS_SUCCESS);
        LendingClient second(*client_, 6, 2);
        while (!stop.load(std::memory_order_relaxed)) {
            first.Step(true);
            second.Step(true);
            first.Flush();
        }
        workersDone.wait(false);
        second.Finish();
        first.Finish();
        for (const LendingClient* client : {&first, &second}) {
            Add(delivered, client->Delivered());
            faults.insert(faults.end(), client->Faults().begin(), client->Faults().end());
            cancelled += client->Cancelled();
        }
    });
    std::vector<std::thread> threads;
    for (Worker& worker : workers)
        threads.emplace_back([&] { worker.Run(stop); });
    const auto end = std::chrono::steady_clock::now() + WorkTime(18);
    while (std::chrono::steady_clock::now() < end) {
        if (dumpAll) machine_.NotifyShutdown();
        // What dumps write has to be read back: some dozens do.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    workersDone = true;
    workersDone.notify_all();
    clientThread.join();
    platform::DrainSystemWork();

    RecordCounts expected;
    for (const Worker& worker : workers) {
        Add(expected, worker.Expected());
        EXPECT_EQ(worker.Failures(), 0);
    }
    EXPECT_TRUE(faults.empty()) << faults.front();
    EXPECT_GT(cancelled, 0);
    EXPECT_GT(Total(delivered), 0);
    const RecordCounts dumped = ReadDumpFile(dumpPath_);
    RecordCounts arrived = delivered;
    if (dumpAll) {
        // At most once to the client; in the dump as often as a dump came by.
        for (const auto& [id, count] : dumped)
            arrived.insert({id, count});
    } else {
        Add(arrived, dumped);
    }
    for (const auto& [id, count] : delivered)
        EXPECT_LE(count, expected[id]);
    if (!dumpAll) {
        for (const auto& [id, count] : arrived)
            ASSERT_LE(count, expected[id]);
        EXPECT_EQ(Total(arrived), RecordsWritten());
    }
    EXPECT_GT(Total(dumped), 0);
}

std::string DumpName(const testing::TestParamInfo<bool>& parameter) {
    return parameter.param ? "AllDumped" : "CancelledDumped";
}

INSTANTIATE_TEST_SUITE_P(Road, RoadStressTest, testing::Bool(), DumpName);

}  // namespace

}  // namespace stress
