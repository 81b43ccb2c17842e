#include "client/event_time.h"
#include "client/format.h"
#include "client/json_payload.h"
#include "client/json_text.h"
#include "client/path_text.h"
#include "client/process_text.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

namespace zpregmon {

namespace {

std::string ProcessMembers(std::uint32_t processId, const std::u16string* image) {
    TextBuffer text;
    {
        TextSink out(text);
        out.Format(",\"pid\":{}", processId);
        if (image != nullptr) {
            out.Put(",\"image\":");
            PutJsonString(out, *image);
        }
    }
    return fmt::to_string(text);
}

std::string JsonStringText(std::u16string_view text) {
    std::string json(text.size() * kMostBytesPerUnit + 2, '"');
    char* const end = WriteJsonText(json.data() + 1, text);
    *end = '"';
    json.resize(static_cast<std::size_t>(end - json.data()) + 1);
    return json;
}

class JsonLinesFormat final : public EventFormat {
public:
    explicit JsonLinesFormat(const ProcessImages* images) : processes_(images, ProcessMembers) {}

    void Append(const Event& event, TextBuffer& buffer) override {
        const std::string& process = processes_.Get(event.ProcessId());
        const std::string& operations = OperationsText(event.Operations());
        TextSink out(buffer);
        out.Put("{\"record\":\"");
        out.Put(RecordName(event.Type()));
        out.Put("\",\"time\":\"");
        out.Put(time_.Write(event.SystemTime()));
        out.Put("Z\"");
        out.Put(process);
        out.Put(",\"process_key\":\"0x");
        out.Hex64(event.ProcessKey());
        out.Put("\",\"operations\":[");
        out.Put(operations);
        out.Put("],\"key\":");
        if (event.Key()) {
            out.Put(paths_.Get(*event.Key(), JsonStringText));
        } else {
            out.Put("null");
        }
        PutPayloadKeys(out, event);
        out.Put("}\n");
    }

private:
    /// Most keys see the same few sets of operations.
    const std::string& OperationsText(zpregflt::OperationMask mask) {
        if (mask == lastMask_ && lastOperations_ != nullptr) {
            return *lastOperations_;
        }
        const auto [entry, isNew] = operations_.try_emplace(mask);
        std::string& text = entry->second;
        lastMask_ = mask;
        lastOperations_ = &text;
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
    PathTextCache paths_;
    ProcessTextCache processes_;
    std::unordered_map<zpregflt::OperationMask, std::string> operations_;
    zpregflt::OperationMask lastMask_ = 0;
    const std::string* lastOperations_ = nullptr;
};

}  // namespace

std::unique_ptr<EventFormat> MakeJsonLinesFormat(const FormatSettings& settings) {
    return std::make_unique<JsonLinesFormat>(settings.images);
}

}  // namespace zpregmon
