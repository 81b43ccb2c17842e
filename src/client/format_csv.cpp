#include "client/event_detail.h"
#include "client/event_time.h"
#include "client/format.h"
#include "client/path_text.h"
#include "client/process_text.h"
#include "client/registry_path.h"
#include "client/text_sink.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace zpregmon {

namespace {

/// By record type.
constexpr std::array<std::string_view, zpregflt::kLastRecordType + 1> kOperations = {
    "",
    "RegSetValue",
    "RegDeleteValue",
    "RegSetInfoKey",
    "RegRenameKey",
    "RegEnumKey",
    "RegEnumValue",
    "RegQueryKey",
    "RegQueryValue",
    "RegQueryMultipleValueKey",
    "RegLoadKey",
    "RegSaveKey",
    "RegSetKeySecurity",
    "RegQueryKeySecurity",
    "RegRestoreKey",
    "RegReplaceKey",
    "RegFlushKey",
    "RegUnloadKey",
    "RegCloseKey",
    "RegDeleteKey",
    "RegQueryKeyName",
    "RegCreateKey",
};
static_assert(!kOperations.back().empty());

/// A field between quotes; quotes inside it are doubled.
template <typename Function>
void PutField(TextSink& out, Function&& put) {
    out.Put('"');
    const std::size_t start = out.Size();
    put();
    if (std::size_t quote = out.From(start).find('"'); quote != std::string_view::npos) {
        const std::string rest(out.From(start + quote));
        out.Truncate(start + quote);
        // Pieces that begin with a quote.
        for (std::size_t at = 0; at < rest.size(); at = quote) {
            quote = std::min(rest.find('"', at + 1), rest.size());
            out.Put('"');
            out.Put(std::string_view(rest).substr(at, quote - at));
        }
    }
    out.Put('"');
}

std::string ProcessFields(std::uint32_t processId, const std::u16string* image) {
    TextBuffer text;
    {
        TextSink out(text);
        PutField(out, [&] { out.TerminalText(image != nullptr ? FileName(*image) : u""); });
        out.Format(",\"{}\"", processId);
    }
    return fmt::to_string(text);
}

void PutPath(TextSink& out, const Event& event, PathTextCache& paths) {
    if (event.Key()) {
        out.Put(paths.Get(*event.Key(), ShortPathText));
    }
    if (const std::optional<WireText> value = ValueOf(event)) {
        out.Put('\\');
        PutValueName(out, *value);
    }
}

class CsvFormat final : public EventFormat {
public:
    explicit CsvFormat(const ProcessImages* images)
        : processes_(images, ProcessFields), detail_(DataStyle::kLabelled) {}

    void AppendHeading(TextBuffer& buffer) override {
        TextSink(buffer).Put(
            "\"Time of Day\",\"Process Name\",\"PID\",\"Operation\",\"Path\",\"Result\","
            "\"Detail\"\n");
    }

    void Append(const Event& event, TextBuffer& buffer) override {
        TextSink out(buffer);
        out.Put('"');
        out.Put(time_.WriteTimeOfDay(event.SystemTime()));
        out.Put("\",");
        out.Put(processes_.Get(event.ProcessId()));
        out.Put(",\"");
        out.Put(kOperations[static_cast<std::size_t>(event.Type())]);
        out.Put("\",");
        PutField(out, [&] { PutPath(out, event, paths_); });
        out.Put(",\"SUCCESS\",");  // nothing else is recorded
        PutField(out, [&] { detail_.Put(out, event); });
        out.Put('\n');
    }

private:
    EventTimeText time_;
    PathTextCache paths_;
    ProcessTextCache processes_;
    EventDetail detail_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeCsvFormat(const FormatSettings& settings) {
    return std::make_unique<CsvFormat>(settings.images);
}

}  // namespace zpregmon
