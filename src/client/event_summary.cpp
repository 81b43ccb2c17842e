#include "client/event_summary.h"

#include "client/event_detail.h"
#include "client/registry_path.h"
#include "client/terminal_width.h"
#include "client/text_encoding.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <vector>

namespace zpregmon {

namespace {

constexpr std::size_t kUsualColumns = 80;

std::u16string Folded(std::u16string_view text) {
    std::u16string folded(text);
    std::transform(folded.begin(), folded.end(), folded.begin(), FoldCase);
    return folded;
}

/// As people write it.
/// The first `depth` parts of a path, of which an abbreviated root is one.
std::u16string_view Subtree(std::u16string_view path, std::size_t depth) {
    const ShortPath parts = ShortenPath(path);
    std::size_t end = path.size() - parts.rest.size();
    for (std::size_t part = parts.root.empty() ? 0 : 1; part < depth && end < path.size(); ++part) {
        end = std::min(path.find(u'\\', end + 1), path.size());
    }
    return path.substr(0, end);
}

void AddHeading(std::string_view heading, std::string& text) {
    text += fmt::format("\n{}\n", heading);
}

void AddCount(std::string_view what, std::uint64_t count, std::string& text) {
    text += fmt::format("{:>12}  {}\n", count, what);
}

}  // namespace

void EventSummary::Add(const Event& event) {
    ++events_;
    ++kinds_[static_cast<std::size_t>(event.Type())];
    Counted& process = processes_[event.ProcessId()];
    if (process.count++ == 0) {
        process.text = fmt::format("process {}", event.ProcessId());
    }
    times_.Add(event.SystemTime());
    if (event.Key()) {
        const std::u16string_view subtree = Subtree(*event.Key(), settings_.depth);
        Counted& counted = subtrees_[Folded(subtree)];
        if (counted.count++ == 0) {
            counted.text = ShortPathText(subtree);
        }
        AddChange(event);
    }
}

void EventSummary::AddChange(const Event& event) {
    const bool isChange = event.Type() == zpregflt::RecordType::kValueSet ||
                          event.Type() == zpregflt::RecordType::kValueDeleted;
    if (!isChange) {
        return;
    }
    const std::u16string name = ValueOf(event)->Copy();
    // No name of a key has a zero in it.
    std::u16string id = Folded(*event.Key());
    id += u'\0';
    id += Folded(name);
    Counted& counted = changes_[id];
    if (counted.count++ == 0) {
        counted.text =
            ShortPathText(*event.Key()) + "\\" + (name.empty() ? "(Default)" : ToTerminal(name));
    }
}

std::string EventSummary::Describe() const {
    std::string text = fmt::format("{:>12}  events\n", events_);
    if (events_ == 0) {
        return text;
    }
    DescribeKinds(text);
    DescribeCounts("PROCESSES", processes_, text);
    DescribeCounts("KEYS BELOW", subtrees_, text);
    DescribeCounts("MOST CHANGED VALUES", changes_, text);
    AddHeading("EVENTS OVER TIME (UTC)", text);
    text += times_.Draw(settings_.columns != 0 ? settings_.columns : kUsualColumns);
    return text;
}

void EventSummary::DescribeKinds(std::string& text) const {
    AddHeading("KINDS", text);
    std::vector<std::uint32_t> types;
    for (std::uint32_t type = 1; type <= zpregflt::kLastRecordType; ++type) {
        if (kinds_[type] != 0) {
            types.push_back(type);
        }
    }
    std::stable_sort(types.begin(), types.end(),
                     [this](std::uint32_t a, std::uint32_t b) { return kinds_[a] > kinds_[b]; });
    for (const std::uint32_t type : types) {
        AddCount(RecordName(static_cast<zpregflt::RecordType>(type)), kinds_[type], text);
    }
}

template <typename Counts>
void EventSummary::DescribeCounts(std::string_view heading, const Counts& counted,
                                  std::string& text) const {
    if (counted.empty()) {
        return;
    }
    AddHeading(heading, text);
    std::vector<const Counted*> counts;
    counts.reserve(counted.size());
    for (const auto& [id, one] : counted) {
        counts.push_back(&one);
    }
    std::sort(counts.begin(), counts.end(), [](const Counted* a, const Counted* b) {
        return a->count != b->count ? a->count > b->count : a->text < b->text;
    });
    constexpr std::size_t kCountColumns = 14;
    const std::size_t room = settings_.columns == 0
                                 ? std::string::npos
                                 : std::max(settings_.columns, 2 * kCountColumns) - kCountColumns;
    for (std::size_t i = 0; i < std::min(counts.size(), settings_.top); ++i) {
        const std::string& what = counts[i]->text;
        AddCount(TerminalColumns(what) <= room
                     ? what
                     : fmt::format("\u2026{}", LastColumns(what, room - 1)),
                 counts[i]->count, text);
    }
    if (counts.size() > settings_.top) {
        text += fmt::format("{:>12}  and {} more\n", "", counts.size() - settings_.top);
    }
}

}  // namespace zpregmon
