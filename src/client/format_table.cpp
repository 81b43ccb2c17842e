#include "client/event_time.h"
#include "client/format.h"
#include "client/process_text.h"
#include "client/text_encoding.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

namespace zpregmon {

namespace {

constexpr std::size_t kTimeWidth = 16;
constexpr std::size_t kProcessWidth = 24;
constexpr std::size_t kPidWidth = 7;
constexpr std::size_t kKindWidth = 20;

std::string TerminalText(std::u16string_view text) {
    std::string result(text.size() * kMostBytesPerUnit, '\0');
    char* const end = WriteTerminalText(result.data(), text);
    result.resize(static_cast<std::size_t>(end - result.data()));
    return result;
}

/// Name and id of the process, each in its column.
std::string ProcessColumns(std::uint32_t processId, const std::u16string* image) {
    std::u16string_view name = u"-";
    if (image != nullptr) {
        name = *image;
        name.remove_prefix(name.rfind(u'\\') + 1);  // nothing, when there is no backslash
    }
    return fmt::format("{:<{}}  {:>{}}", TerminalText(name), kProcessWidth, processId, kPidWidth);
}

bool StartsWithIgnoringCase(std::u16string_view text, std::u16string_view upper) {
    if (text.size() < upper.size()) {
        return false;
    }
    for (std::size_t i = 0; i < upper.size(); ++i) {
        const char16_t c = text[i] >= u'a' && text[i] <= u'z'
                               ? static_cast<char16_t>(text[i] - u'a' + u'A')
                               : text[i];
        if (c != upper[i]) {
            return false;
        }
    }
    return text.size() == upper.size() || text[upper.size()] == u'\\';
}

/// Registry roots as people write them.
struct Abbreviation {
    std::u16string_view root;
    std::string_view text;
};
constexpr Abbreviation kAbbreviations[] = {
    {u"\\REGISTRY\\MACHINE", "HKLM"},
    {u"\\REGISTRY\\USER", "HKU"},
};

class TableFormat final : public EventFormat {
public:
    explicit TableFormat(const ProcessImages* images) : processes_(images, ProcessColumns) {}

    void AppendHeading(TextBuffer& out) override {
        fmt::format_to(std::back_inserter(out), "{:<{}}  {:<{}}  {:>{}}  {:<{}}  {}\n", "TIME",
                       kTimeWidth, "PROCESS", kProcessWidth, "PID", kPidWidth, "OPERATION",
                       kKindWidth, "KEY");
    }

    void Append(const Event& event, TextBuffer& out) override {
        AppendText(time_.WriteTimeOfDay(event.systemTime), out);
        AppendText("  ", out);
        AppendText(processes_.Get(event.processId), out);
        AppendText("  ", out);
        const std::string_view kind = RecordName(event.type);
        AppendText(kind, out);
        AppendText(kSpaces.substr(0, kKindWidth + 2 - kind.size()), out);
        if (event.key) {
            AppendPath(*event.key, out);
        } else {
            out.push_back('-');
        }
        out.push_back('\n');
    }

private:
    static constexpr std::string_view kSpaces = "                        ";
    static_assert(kSpaces.size() >= kKindWidth + 2);

    static void AppendText(std::string_view text, TextBuffer& out) {
        out.append(text.data(), text.data() + text.size());
    }

    static void AppendPath(std::u16string_view path, TextBuffer& out) {
        for (const Abbreviation& abbreviation : kAbbreviations) {
            if (StartsWithIgnoringCase(path, abbreviation.root)) {
                AppendText(abbreviation.text, out);
                path.remove_prefix(abbreviation.root.size());
                break;
            }
        }
        const std::size_t start = out.size();
        out.resize(start + path.size() * kMostBytesPerUnit);
        char* const end = WriteTerminalText(out.data() + start, path);
        out.resize(static_cast<std::size_t>(end - out.data()));
    }

    EventTimeText time_;
    ProcessTextCache processes_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeTableFormat(const ProcessImages* images) {
    return std::make_unique<TableFormat>(images);
}

}  // namespace zpregmon
