#include "client/event_detail.h"
#include "client/event_time.h"
#include "client/format.h"
#include "client/path_text.h"
#include "client/process_text.h"
#include "client/registry_path.h"
#include "client/terminal_width.h"
#include "client/text_sink.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>

namespace zpregmon {

namespace {

using zpregflt::RecordType;

constexpr std::size_t kPidWidth = 7;
constexpr std::size_t kKindWidth = 20;
constexpr std::string_view kGap = "  ";
constexpr std::string_view kCut = "\u2026";

/// Columns that depend on where the table goes to.
struct Widths {
    std::size_t time = 16;
    std::size_t process = 24;
    /// 0: as long as they are.
    std::size_t key = 0;
    std::size_t detail = 0;
};

Widths ChooseWidths(std::size_t columns) {
    if (columns == 0) {
        return {};
    }
    constexpr std::size_t kNarrow = 120;
    constexpr std::size_t kLeast = 8;
    Widths widths;
    widths.time = columns < kNarrow ? 12 : widths.time;  // milliseconds
    widths.process = std::clamp<std::size_t>(columns / 8, 10, 24);
    const std::size_t taken =
        widths.time + widths.process + kPidWidth + kKindWidth + 5 * kGap.size();
    const std::size_t left = std::max(columns, taken + 2 * kLeast) - taken;
    widths.key = std::max(left * 3 / 5, kLeast);
    widths.detail = left - widths.key;
    return widths;
}

/// The first part of the text and a mark where something is missing.
void CutEnd(TextSink& out, std::size_t start, std::size_t columns) {
    const std::string_view text = out.From(start);
    if (TerminalColumns(text) > columns) {
        out.Truncate(start + FirstColumns(text, columns - 1).size());
        out.Put(kCut);
    }
}

/// The root and the last part of a path, which tell more than its middle.
void CutMiddle(TextSink& out, std::size_t start, std::size_t columns, std::size_t rootSize) {
    const std::string_view text = out.From(start);
    if (TerminalColumns(text) <= columns) {
        return;
    }
    const std::size_t head = rootSize + 1 < columns / 2 ? rootSize + 1 : 0;  // with its backslash
    const std::string end(LastColumns(text, columns - head - 1));
    out.Truncate(start + head);
    out.Put(kCut);
    out.Put(end);
}

std::string_view ColourOf(RecordType type) {
    constexpr std::string_view kGreen = "\x1b[32m", kYellow = "\x1b[33m", kRed = "\x1b[31m",
                               kMagenta = "\x1b[35m", kFaint = "\x1b[2m";
    switch (type) {
        case RecordType::kKeyCreated:
        case RecordType::kHiveLoaded:
            return kGreen;
        case RecordType::kValueSet:
        case RecordType::kKeyRenamed:
        case RecordType::kKeyInformationSet:
        case RecordType::kKeyRestored:
        case RecordType::kKeyReplaced:
            return kYellow;
        case RecordType::kValueDeleted:
        case RecordType::kKeyDeleted:
        case RecordType::kHiveUnloaded:
            return kRed;
        case RecordType::kKeySecuritySet:
            return kMagenta;
        default:
            return kFaint;
    }
}
constexpr std::string_view kPlain = "\x1b[0m";

class TableFormat final : public EventFormat {
public:
    explicit TableFormat(const FormatSettings& settings)
        : widths_(ChooseWidths(settings.columns)),
          colour_(settings.colour),
          processes_(settings.images,
                     [this](std::uint32_t processId, const std::u16string* image) {
                         return ProcessColumns(processId, image);
                     }),
          detail_(DataStyle::kShort) {}

    void AppendHeading(TextBuffer& buffer) override {
        TextSink out(buffer);
        out.Format("{:<{}}  {:<{}}  {:>{}}  {:<{}}  {:<{}}  {}\n", "TIME", widths_.time, "PROCESS",
                   widths_.process, "PID", kPidWidth, "OPERATION", kKindWidth, "KEY", widths_.key,
                   "DETAIL");
    }

    void Append(const Event& event, TextBuffer& buffer) override {
        TextSink out(buffer);
        out.Put(time_.WriteTimeOfDay(event.SystemTime()).substr(0, widths_.time));
        out.Put(kGap);
        out.Put(processes_.Get(event.ProcessId()));
        out.Put(kGap);
        PutKind(out, event.Type());
        const std::size_t start = out.Size();
        PutKey(out, event);
        if (!event.Has<NoPayload>()) {
            PutDetail(out, event, start);
        }
        out.Put('\n');
    }

private:
    /// Name and id of the process, each in its column.
    std::string ProcessColumns(std::uint32_t processId, const std::u16string* image) const {
        TextBuffer text;
        {
            TextSink out(text);
            out.TerminalText(image != nullptr ? FileName(*image) : u"-");
            if (widths_.key != 0) {
                CutEnd(out, 0, widths_.process);
            }
            const std::size_t taken = TerminalColumns(out.From(0));
            out.Spaces(widths_.process - std::min(taken, widths_.process));
            out.Format("  {:>{}}", processId, kPidWidth);
        }
        return fmt::to_string(text);
    }

    void PutKind(TextSink& out, RecordType type) const {
        const std::string_view kind = RecordName(type);
        if (colour_) {
            out.Put(ColourOf(type));
        }
        out.Put(kind);
        if (colour_) {
            out.Put(kPlain);
        }
        out.Spaces(kKindWidth + kGap.size() - kind.size());
    }

    void PutKey(TextSink& out, const Event& event) {
        if (event.Key()) {
            out.Put(paths_.Get(*event.Key(),
                               [this](std::u16string_view path) { return KeyText(path); }));
        } else {
            out.Put('-');
        }
    }

    std::string KeyText(std::u16string_view key) const {
        TextBuffer text;
        {
            TextSink out(text);
            const ShortPath path = ShortenPath(key);
            out.Put(path.root);
            out.TerminalText(path.rest);
            if (widths_.key != 0) {
                CutMiddle(out, 0, widths_.key, path.root.size());
            }
        }
        return fmt::to_string(text);
    }

    /// Behind the key, which starts at `key`.
    void PutDetail(TextSink& out, const Event& event, std::size_t key) {
        if (widths_.key != 0) {
            out.Spaces(widths_.key - std::min(widths_.key, TerminalColumns(out.From(key))));
        }
        out.Put(kGap);
        const std::size_t start = out.Size();
        detail_.Put(out, event);
        if (widths_.detail != 0) {
            CutEnd(out, start, widths_.detail);
        }
    }

    Widths widths_;
    bool colour_;
    EventTimeText time_;
    PathTextCache paths_;
    ProcessTextCache processes_;
    EventDetail detail_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeTableFormat(const FormatSettings& settings) {
    return std::make_unique<TableFormat>(settings);
}

}  // namespace zpregmon
