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

constexpr std::string_view kGap = "  ";
constexpr std::string_view kCut = "\u2026";

/// Columns of the table; those of a table that goes to no terminal.
struct Widths {
    std::size_t line = 0;  ///< of the terminal; 0: there is none and nothing is cut
    std::size_t time = 16;
    std::size_t process = 24;
    std::size_t pid = 7;
    std::size_t kind = 20;
    std::size_t key = 0;      ///< with a detail behind it
    std::size_t keyOnly = 0;  ///< without

    std::size_t BeforeKey() const { return time + process + pid + kind + 4 * kGap.size(); }
};

Widths ChooseWidths(const FormatSettings& settings) {
    Widths widths;
    widths.line = settings.columns;
    if (widths.line == 0) {
        return widths;
    }
    constexpr std::size_t kNarrow = 100;
    constexpr std::size_t kMiddle = 120;
    constexpr std::size_t kWide = 160;
    constexpr std::size_t kLeastKey = 8;
    constexpr std::size_t kMostKey = 60;
    if (widths.line < kMiddle) {
        widths.pid = 5;
        widths.kind = 17;
    }
    if (widths.line < kWide) {
        widths.time = widths.line < kNarrow ? 8 : 12;  // seconds, milliseconds
    }
    widths.process = settings.images != nullptr ? std::clamp<std::size_t>(widths.line / 10, 10, 16)
                                                : std::string_view("PROCESS").size();
    widths.keyOnly = std::max(widths.line, widths.BeforeKey() + kLeastKey) - widths.BeforeKey();
    widths.key = std::clamp((widths.keyOnly - kGap.size()) / 2, kLeastKey, kMostKey);
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
    /// Without colour where the terminal ends before it does.
    explicit TableFormat(const FormatSettings& settings)
        : widths_(ChooseWidths(settings)),
          colour_(settings.colour && (widths_.line == 0 || widths_.line > widths_.BeforeKey())),
          processes_(settings.images,
                     [this](std::uint32_t processId, const std::u16string* image) {
                         return ProcessColumns(processId, image);
                     }),
          detail_(DataStyle::kShort) {}

    void AppendHeading(TextBuffer& buffer) override {
        TextSink out(buffer);
        const std::size_t start = out.Size();
        out.Format("{:<{}}  {:<{}}  {:>{}}  {:<{}}  {:<{}}  {}", "TIME", widths_.time, "PROCESS",
                   widths_.process, "PID", widths_.pid, "OPERATION", widths_.kind, "KEY",
                   widths_.key, "DETAIL");
        EndLine(out, start, 0);
    }

    void Append(const Event& event, TextBuffer& buffer) override {
        TextSink out(buffer);
        const std::size_t start = out.Size();
        out.Put(time_.WriteTimeOfDay(event.SystemTime()).substr(0, widths_.time));
        out.Put(kGap);
        out.Put(processes_.Get(event.ProcessId()));
        out.Put(kGap);
        const std::size_t escapes = PutKind(out, event.Type());
        out.Put(kGap);
        if (event.Has<NoPayload>()) {
            PutKey(out, event, widths_.keyOnly);
        } else {
            const std::size_t key = out.Size();
            PutKey(out, event, widths_.key);
            if (IsTerminal()) {
                Fill(out, key, widths_.key);
            }
            out.Put(kGap);
            detail_.Put(out, event);
        }
        EndLine(out, start, escapes);
    }

private:
    bool IsTerminal() const { return widths_.line != 0; }

    /// `escapes`: characters since `start` that take no column.
    void EndLine(TextSink& out, std::size_t start, std::size_t escapes) const {
        if (IsTerminal()) {
            CutEnd(out, start, widths_.line + escapes);
        }
        out.Put('\n');
    }

    /// Spaces until what begins at `start` takes this many columns.
    static void Fill(TextSink& out, std::size_t start, std::size_t columns) {
        out.Spaces(columns - std::min(columns, TerminalColumns(out.From(start))));
    }

    /// Name and id of the process, each in its column.
    std::string ProcessColumns(std::uint32_t processId, const std::u16string* image) const {
        TextBuffer text;
        {
            TextSink out(text);
            out.TerminalText(image != nullptr ? FileName(*image) : u"-");
            if (IsTerminal()) {
                CutEnd(out, 0, widths_.process);
            }
            Fill(out, 0, widths_.process);
            out.Format("  {:>{}}", processId, widths_.pid);
        }
        return fmt::to_string(text);
    }

    /// In its column; returns how many characters take none.
    std::size_t PutKind(TextSink& out, RecordType type) const {
        const std::string_view before = colour_ ? ColourOf(type) : "";
        const std::string_view behind = colour_ ? kPlain : "";
        const std::string_view kind = RecordName(type);
        const bool isCut = kind.size() > widths_.kind;
        out.Put(before);
        out.Put(isCut ? kind.substr(0, widths_.kind - 1) : kind);
        out.Put(isCut ? kCut : "");
        out.Put(behind);
        out.Spaces(widths_.kind - std::min(kind.size(), widths_.kind));
        return before.size() + behind.size();
    }

    /// On a terminal cut to this many columns.
    void PutKey(TextSink& out, const Event& event, std::size_t columns) {
        if (!event.Key()) {
            out.Put('-');
            return;
        }
        const std::size_t start = out.Size();
        out.Put(paths_.Get(*event.Key(), ShortPathText));
        if (IsTerminal()) {
            CutMiddle(out, start, columns, ShortenPath(*event.Key()).root.size());
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
