#include "client/event_filter.h"

#include "client/event_detail.h"
#include "client/information_layout.h"
#include "client/process_text.h"
#include "client/registry_path.h"
#include "client/text_encoding.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

namespace zpregmon {

namespace {

constexpr std::string_view kFieldNames[] = {"op", "key", "value", "pid", "image"};

bool MatchesAny(const std::vector<std::u16string>& patterns, WireText text) {
    return std::any_of(patterns.begin(), patterns.end(),
                       [&](const std::u16string& pattern) { return MatchesGlob(pattern, text); });
}

/// The path as it was recorded, or as the formats abbreviate it.
bool MatchesKey(const std::vector<std::u16string>& patterns, std::u16string_view key) {
    if (MatchesAny(patterns, key)) {
        return true;
    }
    const ShortPath path = ShortenPath(key);
    return !path.root.empty() &&
           MatchesAny(patterns,
                      std::u16string(path.root.begin(), path.root.end()) + path.rest.Copy());
}

bool MatchesValue(const std::vector<std::u16string>& patterns, const Event& event) {
    if (const auto values = event.As<ValuesQueried>()) {
        for (std::uint32_t i = 0; i < values->size(); ++i) {
            const auto name = (*values)[i].value;
            if (name && MatchesAny(patterns, *name)) {
                return true;
            }
        }
        return false;
    }
    if (const auto enumerated = event.As<ValueEnumerated>()) {
        const auto facts = ReadValueInformation(enumerated->informationClass, enumerated->data);
        return facts && facts->name && MatchesAny(patterns, *facts->name);
    }
    const auto name = ValueOf(event);
    return name && MatchesAny(patterns, *name);
}

/// Whether the path begins with a root that is none of the kernel's, but a view of one of its keys.
bool IsUnderView(std::u16string_view path) {
    constexpr std::u16string_view kViews[] = {u"hkcu", u"hkey_current_user",
                                              u"hkcr", u"hkey_classes_root",
                                              u"hkcc", u"hkey_current_config"};
    const WireText root(path.substr(0, path.find(u'\\')));
    return std::any_of(std::begin(kViews), std::end(kViews),
                       [&](std::u16string_view view) { return MatchesGlob(view, root); });
}

bool MatchesImage(const std::vector<std::u16string>& patterns, const std::u16string& image) {
    return std::any_of(patterns.begin(), patterns.end(), [&](const std::u16string& pattern) {
        const bool isPath = pattern.find(u'\\') != std::u16string::npos;
        return MatchesGlob(pattern, isPath ? std::u16string_view(image) : FileName(image));
    });
}

}  // namespace

bool MatchesGlob(std::u16string_view pattern, WireText text) {
    std::size_t inPattern = 0;
    std::size_t inText = 0;
    // Where to go on when the characters after the last star do not match.
    std::size_t afterStar = std::u16string_view::npos;
    std::size_t starText = 0;
    while (inText < text.size()) {
        if (inPattern < pattern.size() && pattern[inPattern] == u'*') {
            afterStar = ++inPattern;
            starText = inText;
        } else if (inPattern < pattern.size() &&
                   (pattern[inPattern] == u'?' ||
                    FoldCase(pattern[inPattern]) == FoldCase(text[inText]))) {
            ++inPattern;
            ++inText;
        } else if (afterStar != std::u16string_view::npos) {
            inPattern = afterStar;
            inText = ++starText;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(u'*', inPattern) == std::u16string_view::npos;
}

std::string EventFilter::Add(std::string_view rule, Rules& rules) {
    const std::size_t equals = rule.find('=');
    const std::string_view name = rule.substr(0, equals);
    const auto* const found = std::find(std::begin(kFieldNames), std::end(kFieldNames), name);
    if (equals == std::string_view::npos || found == std::end(kFieldNames)) {
        return fmt::format("'{}' is no filter, expected {}= and a pattern", rule,
                           fmt::join(kFieldNames, "=, "));
    }
    const auto field = static_cast<Field>(found - std::begin(kFieldNames));
    const std::string_view what = rule.substr(equals + 1);
    std::string problem = field == kOperation || field == kProcess ? AddWords(field, what, rules)
                                                                   : AddPattern(field, rule, rules);
    if (problem.empty()) {
        rules.fields |= 1U << field;
    }
    return problem;
}

std::string EventFilter::AddWords(Field field, std::string_view words, Rules& rules) {
    for (std::size_t start = 0; start <= words.size();) {
        const std::size_t comma = std::min(words.find(',', start), words.size());
        const std::string_view word = words.substr(start, comma - start);
        start = comma + 1;
        if (field == kOperation) {
            const std::optional<std::uint32_t> kinds = ParseKind(word);
            if (!kinds) {
                return fmt::format(
                    "'{}' is no operation, expected a kind of record such as "
                    "value-set or an operation such as SetValueKey",
                    word);
            }
            if (*kinds == 0) {
                return fmt::format("'{}' makes no records, so that no event matches", word);
            }
            rules.kinds |= *kinds;
            continue;
        }
        std::uint32_t process = 0;
        const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), process);
        if (error != std::errc() || end != word.data() + word.size()) {
            return fmt::format("'{}' is no process id, expected a number", word);
        }
        rules.processes.push_back(process);
    }
    return {};
}

std::string EventFilter::AddPattern(Field field, std::string_view rule, Rules& rules) {
    const std::optional<std::u16string> pattern = FromUtf8(rule.substr(rule.find('=') + 1));
    if (!pattern) {
        return fmt::format("'{}' is not UTF-8", rule);
    }
    if (field == kKey && IsUnderView(*pattern)) {
        return fmt::format("'{}' matches no event, expected a path under HKLM, HKU or \\REGISTRY",
                           rule);
    }
    rules.patterns[field].push_back(field == kKey ? LengthenPath(*pattern) : *pattern);
    return {};
}

bool EventFilter::Matches(Field field, const Rules& rules, const Event& event,
                          const ProcessImages* images) {
    switch (field) {
        case kOperation:
            return (rules.kinds >> static_cast<std::uint32_t>(event.Type()) & 1U) != 0;
        case kKey:
            return event.Key() && MatchesKey(rules.patterns[kKey], *event.Key());
        case kValue:
            return MatchesValue(rules.patterns[kValue], event);
        case kProcess:
            return std::find(rules.processes.begin(), rules.processes.end(), event.ProcessId()) !=
                   rules.processes.end();
        case kImage: {
            const std::u16string* const image =
                images != nullptr ? images->Find(event.ProcessId()) : nullptr;
            return image != nullptr && MatchesImage(rules.patterns[kImage], *image);
        }
        case kFieldCount:
            break;
    }
    return false;
}

bool EventFilter::Passes(const Event& event, const ProcessImages* images) const {
    for (unsigned number = 0; number < kFieldCount; ++number) {
        const auto field = static_cast<Field>(number);
        if ((include_.fields >> number & 1U) != 0 && !Matches(field, include_, event, images)) {
            return false;
        }
        if ((exclude_.fields >> number & 1U) != 0 && Matches(field, exclude_, event, images)) {
            return false;
        }
    }
    return true;
}

}  // namespace zpregmon
