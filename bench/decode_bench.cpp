// The client's side: walking and checking what the driver delivered, and printing it.
#include "channel/buffer_format.h"
#include "client/event_writer.h"
#include "client/record_decoder.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zpregflt_bench {

namespace {

using zpregflt::BufferHeader;
using zpregflt::RecordHeader;
using zpregflt::RecordType;
using zpregflt::ValueSetRecord;
using zpregmon::Event;
using zpregmon::RecordDecoder;

constexpr std::size_t kImageSize = 0x10000;
constexpr std::size_t kRecordSize = 144;

constexpr std::u16string_view kPath =
    u"\\REGISTRY\\MACHINE\\SYSTEM\\ControlSet001\\Services\\Dhcp\\Parameters";
constexpr std::u16string_view kName = u"LeaseTerms";

template <typename T>
void Put(std::vector<std::byte>& image, std::size_t at, const T& value) {
    std::memcpy(image.data() + at, &value, sizeof(value));
}

void PutText(std::vector<std::byte>& image, std::size_t at, std::u16string_view text) {
    std::memcpy(image.data() + at, text.data(), text.size() * sizeof(char16_t));
}

RecordHeader MakeHeader(RecordType type, std::size_t at, std::size_t path) {
    RecordHeader header{};
    header.Type = type;
    header.NextOffset = kRecordSize;
    header.ProcessId = 1234;
    header.ProcessKey = 0x1DD7AE98C5BCB2F;
    header.SystemTime = 134398501711234567 + at;
    header.KeyOperations = zpregflt::operation::kSetValueKey | zpregflt::operation::kCreateKeyEx;
    header.NameOffset = static_cast<std::int32_t>(path) - static_cast<std::int32_t>(at);
    return header;
}

/// Values set, in records of 144 bytes with 52 bytes of text as data, all about one key.
std::vector<std::byte> MakeImage() {
    std::vector<std::byte> image(kImageSize);
    const std::size_t path = sizeof(BufferHeader);
    PutText(image, path, kPath);
    const std::size_t first = (path + (kPath.size() + 1) * sizeof(char16_t) + 7) / 8 * 8;
    Put(image, 0, BufferHeader{0, static_cast<std::int32_t>(first)});
    std::size_t last = 0;
    for (std::size_t at = first; at + kRecordSize <= kImageSize; at += kRecordSize) {
        ValueSetRecord record{};
        constexpr std::uint32_t kDataSize = 52;
        record.Header = MakeHeader(RecordType::kValueSet, at, path);
        record.ValueNameOffset = ValueSetRecord::kDataOffset + kDataSize;
        record.ValueType = 1;
        record.DataSize = record.CapturedLength = kDataSize;
        std::memcpy(image.data() + at, &record, ValueSetRecord::kDataOffset);
        PutText(image, at + ValueSetRecord::kDataOffset, u"C:\\Windows\\system32\\dhcp.x");
        PutText(image, at + record.ValueNameOffset, kName);
        last = at;
    }
    Put(image, last + offsetof(RecordHeader, NextOffset), std::int32_t{0});
    return image;
}

/// Follows the chain and looks at nothing else: what any reader must at least do.
void BM_PlainWalk(benchmark::State& state) {
    const std::vector<std::byte> image = MakeImage();
    std::size_t records = 0;
    for (auto _ : state) {
        std::size_t at = 0;
        std::uint64_t sum = 0;
        for (;;) {
            std::int32_t next;
            std::memcpy(&next, image.data() + at + offsetof(RecordHeader, NextOffset),
                        sizeof(next));
            if (next == 0) {
                break;
            }
            at += static_cast<std::size_t>(next);
            std::uint64_t time;
            std::memcpy(&time, image.data() + at + offsetof(RecordHeader, SystemTime),
                        sizeof(time));
            sum += time;
            ++records;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(records));
    state.SetBytesProcessed(static_cast<std::int64_t>(records * kRecordSize));
}
BENCHMARK(BM_PlainWalk);

void BM_Decode(benchmark::State& state) {
    const std::vector<std::byte> image = MakeImage();
    std::size_t records = 0;
    for (auto _ : state) {
        RecordDecoder decoder(image);
        for (Event event; decoder.Next(event);) {
            benchmark::DoNotOptimize(event);
            ++records;
        }
        if (decoder.Error()) {
            state.SkipWithError(decoder.Error()->what.c_str());
        }
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(records));
    state.SetBytesProcessed(static_cast<std::int64_t>(records * kRecordSize));
}
BENCHMARK(BM_Decode);

class OneImage final : public zpregmon::ProcessImages {
public:
    const std::u16string* Find(std::uint32_t) const override { return &image_; }

private:
    std::u16string image_ = u"\\Device\\HarddiskVolume1\\Windows\\System32\\svchost.exe";
};

/// The whole client, decoding included, to /dev/null; items are lines.
void BM_Print(benchmark::State& state, const char* format) {
    const std::vector<std::byte> image = MakeImage();
    const OneImage images;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/dev/null", "wb"),
                                                               std::fclose);
    zpregmon::FormatSettings settings;
    settings.images = &images;
    zpregmon::EventWriter writer(zpregmon::FindFormat(format)->make(settings), file.get());
    std::size_t lines = 0;
    for (auto _ : state) {
        RecordDecoder decoder(image);
        for (Event event; decoder.Next(event);) {
            writer.Write(event);
            ++lines;
        }
    }
    writer.Flush();
    state.SetItemsProcessed(static_cast<std::int64_t>(lines));
}
BENCHMARK_CAPTURE(BM_Print, Table, "table");
BENCHMARK_CAPTURE(BM_Print, JsonLines, "jsonl");
BENCHMARK_CAPTURE(BM_Print, Csv, "csv");
BENCHMARK_CAPTURE(BM_Print, Sysmon, "sysmon");
BENCHMARK_CAPTURE(BM_Print, Ocsf, "ocsf");

}  // namespace

}  // namespace zpregflt_bench
