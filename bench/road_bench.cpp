// The pieces on the road of an operation, beside the baseline that they are measured in.
#include "baseline.h"
#include "channel/memory.h"
#include "intercept/contexts.h"
#include "records/record_format.h"
#include "road.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <thread>

namespace zpregflt_bench {

namespace {

void BM_Baseline(benchmark::State& state) {
    static Baseline baseline;
    unsigned char payload[Baseline::kPayloadSize] = {};
    unsigned char name[Baseline::kNameSize] = {};
    for (auto _ : state) {
        baseline.Record(1, 4, payload, name);
    }
}
BENCHMARK(BM_Baseline)->ThreadRange(1, 4)->UseRealTime();

/// Reserve, link, fill as the baseline does, release.
void BM_SinkAlone(benchmark::State& state) {
    Road::Instance();
    unsigned char body[Baseline::kPayloadSize + Baseline::kNameSize] = {};
    double stalls = 0;  // waits for the client, which this is not to measure
    for (auto _ : state) {
        ULONG size = sizeof(zpregflt::RecordHeader) + sizeof(body);
        ULONG sequence = 0;
        zpregflt::EventBuffer* buffer = nullptr;
        PVOID space = zpregflt::MemReserve(&size, &buffer, &sequence, 0);
        while (space == nullptr) {
            ++stalls;
            std::this_thread::yield();
            space = zpregflt::MemReserve(&size, &buffer, &sequence, 0);
        }
        auto* const record = static_cast<zpregflt::RecordHeader*>(space);
        LARGE_INTEGER now;
        KeQuerySystemTime(&now);
        record->Type = zpregflt::RecordType::kKeyFlushed;
        record->NextOffset = 0;
        record->ProcessId = 4;
        record->ProcessKey = 4;
        record->SystemTime = static_cast<std::uint64_t>(now.QuadPart);
        record->KeyOperations = 0;
        record->NameOffset = 0;
        std::memcpy(record + 1, body, sizeof(body));
        zpregflt::MemCommit(buffer, record);
        zpregflt::MemRelease(buffer);
    }
    state.counters["stalls"] = stalls;
}
BENCHMARK(BM_SinkAlone)->ThreadRange(1, 4)->UseRealTime();

void BM_NotificationWithoutHandler(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    OpenKey key(u"Unhandled");
    for (auto _ : state) {
        key.Notify(RegNtPreQueryKey);
    }
}
BENCHMARK(BM_NotificationWithoutHandler)->ThreadRange(1, 2)->UseRealTime();

/// The opener of the key does not watch setting of information.
void BM_NotificationFilteredByPolicy(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    OpenKey key(u"Filtered");
    for (auto _ : state) {
        key.Notify(RegNtPostSetInformationKey);
    }
}
BENCHMARK(BM_NotificationFilteredByPolicy)->ThreadRange(1, 2)->UseRealTime();

void BM_RecordWithPathCached(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    OpenKey key(std::u16string(1, static_cast<char16_t>(u'0' + state.thread_index())));
    for (auto _ : state) {
        key.Notify(RegNtPostFlushKey);
    }
}
BENCHMARK(BM_RecordWithPathCached)->ThreadRange(1, 4)->UseRealTime();

/// The key's path is written beside each record.
void BM_RecordWithPathWritten(benchmark::State& state) {
    const platform::ThreadScope thread(Road::Instance().MonitoredProcess());
    OpenKey key(u"Written");
    key.Notify(RegNtPostFlushKey);
    auto& entry = *static_cast<zpregflt::KeyObjectContext*>(key.Context())->Entry();
    for (auto _ : state) {
        entry.ForgetName();
        key.Notify(RegNtPostFlushKey);
    }
}
BENCHMARK(BM_RecordWithPathWritten)->UseRealTime();

}  // namespace

}  // namespace zpregflt_bench
