// Chooses events by operation, key, value name, process and image.
#pragma once

#include "client/event.h"
#include "client/format.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace zpregmon {

/// Rules of the form FIELD=WHAT:
///
///     op=value-set,DeleteKey       kinds of records or operations
///     key=HKLM\Software\*          the key's path, with its root (HKLM, HKU) abbreviated or not
///     value=*Path*                 a value's name; the default value's is empty
///     pid=32,40                    process ids
///     image=*\svchost.exe          the process's image; without a backslash, its last part
///
/// In patterns * stands for any characters and ? for one; case does not matter. An event passes
/// when it matches one rule of every field that has rules to include, and no rule to exclude. A
/// kind without value names matches no rule for values, an unknown image no rule for images.
class EventFilter {
public:
    /// Returns what is wrong with the rule, or nothing when it was added.
    std::string Include(std::string_view rule) { return Add(rule, include_); }
    std::string Exclude(std::string_view rule) { return Add(rule, exclude_); }

    bool IsEmpty() const { return include_.fields == 0 && exclude_.fields == 0; }
    /// `images` may be null.
    bool Passes(const Event& event, const ProcessImages* images) const;

private:
    enum Field : unsigned { kOperation, kKey, kValue, kProcess, kImage, kFieldCount };
    using Patterns = std::vector<std::u16string>;

    struct Rules {
        unsigned fields = 0;      ///< that have rules, one bit each
        std::uint32_t kinds = 0;  ///< one bit for each record type
        std::vector<std::uint32_t> processes;
        std::array<Patterns, kFieldCount> patterns;
    };

    static std::string Add(std::string_view rule, Rules& rules);
    static std::string AddWords(Field field, std::string_view words, Rules& rules);
    static std::string AddPattern(Field field, std::string_view rule, Rules& rules);
    static bool Matches(Field field, const Rules& rules, const Event& event,
                        const ProcessImages* images);

    Rules include_;
    Rules exclude_;
};

/// Whether the pattern, in which * and ? are wild and letters are folded, matches all of the text.
bool MatchesGlob(std::u16string_view pattern, WireText text);

}  // namespace zpregmon
