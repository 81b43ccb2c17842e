#include "client/format.h"

#include <algorithm>

namespace zpregmon {

const std::vector<NamedFormat>& Formats() {
    static const std::vector<NamedFormat> formats = {
        {"table", "columns for people, cut to the width of a terminal", MakeTableFormat},
        {"jsonl", "one JSON object a line, with everything that was recorded", MakeJsonLinesFormat},
        {"csv", "comma-separated columns for spreadsheets and log viewers", MakeCsvFormat},
        {"ocsf", "registry activities of the Open Cybersecurity Schema Framework, one a line",
         MakeOcsfFormat},
        {"sysmon", "events 12, 13 and 14 with the field names that detection rules know",
         MakeSysmonFormat},
    };
    return formats;
}

const NamedFormat* FindFormat(std::string_view name) {
    const auto& formats = Formats();
    const auto found = std::find_if(formats.begin(), formats.end(),
                                    [&](const NamedFormat& format) { return format.name == name; });
    return found != formats.end() ? &*found : nullptr;
}

}  // namespace zpregmon
