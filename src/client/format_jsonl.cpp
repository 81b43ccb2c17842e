#include "client/event_time.h"
#include "client/format.h"
#include "client/process_text.h"
#include "client/text_encoding.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

#include <cstring>

namespace zpregmon {

namespace {

std::string JsonString(std::u16string_view text) {
    std::string json(text.size() * kMostBytesPerUnit + 2, '"');
    char* const end = WriteJsonText(json.data() + 1, text);
    *end = '"';
    json.resize(static_cast<std::size_t>(end - json.data()) + 1);
    return json;
}

std::string ProcessText(std::uint32_t processId, const std::u16string* image) {
    std::string text = fmt::format(",\"pid\":{}", processId);
    if (image != nullptr) {
        text += ",\"image\":" + JsonString(*image);
    }
    return text;
}

class JsonLinesFormat final : public EventFormat {
public:
    explicit JsonLinesFormat(const ProcessImages* images) : processes_(images, ProcessText) {}

    void Append(const Event& event, TextBuffer& out) override {
        const std::string_view time = time_.Write(event.systemTime);
        const std::string& process = processes_.Get(event.processId);
        const std::string& operations = OperationsText(event.operations);
        const std::size_t keyUnits = event.key ? event.key->size() : 0;
        const std::size_t start = out.size();
        out.resize(start + kFixedRoom + process.size() + operations.size() +
                   keyUnits * kMostBytesPerUnit);
        char* at = out.data() + start;
        at = Put(at, "{\"record\":\"");
        at = Put(at, RecordName(event.type));
        at = Put(at, "\",\"time\":\"");
        at = Put(at, time);
        at = Put(at, "Z\"");
        at = Put(at, process);
        at = Put(at, ",\"process_key\":\"0x");
        at = PutHex(at, event.processKey);
        at = Put(at, "\",\"operations\":[");
        at = Put(at, operations);
        at = Put(at, "],\"key\":");
        if (event.key) {
            *at++ = '"';
            at = WriteJsonText(at, *event.key);
            *at++ = '"';
        } else {
            at = Put(at, "null");
        }
        at = Put(at, "}\n");
        out.resize(static_cast<std::size_t>(at - out.data()));
    }

private:
    /// For everything but the process, the operations and the key; the longest time takes 32.
    static constexpr std::size_t kFixedRoom = 192;

    static char* Put(char* at, std::string_view text) {
        std::memcpy(at, text.data(), text.size());
        return at + text.size();
    }

    static char* PutHex(char* at, std::uint64_t number) {
        for (int shift = 60; shift >= 0; shift -= 4) {
            *at++ = "0123456789abcdef"[number >> shift & 0xF];
        }
        return at;
    }

    /// Most keys see the same few sets of operations.
    const std::string& OperationsText(zpregflt::OperationMask mask) {
        const auto [entry, isNew] = operations_.try_emplace(mask);
        std::string& text = entry->second;
        if (isNew) {
            for (std::size_t bit = 0; bit < 32; ++bit) {
                if ((mask >> bit & 1) == 0) {
                    continue;
                }
                text += text.empty() ? "" : ",";
                text += bit < zpregflt::kOperationCount
                            ? fmt::format("\"{}\"", zpregflt::kOperationNames[bit])
                            : fmt::format("\"{:#x}\"", zpregflt::OperationMask{1} << bit);
            }
        }
        return text;
    }

    EventTimeText time_;
    ProcessTextCache processes_;
    std::unordered_map<zpregflt::OperationMask, std::string> operations_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeJsonLinesFormat(const ProcessImages* images) {
    return std::make_unique<JsonLinesFormat>(images);
}

}  // namespace zpregmon
