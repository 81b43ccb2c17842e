#include "client/format.h"

namespace zpregmon {

const std::vector<NamedFormat>& Formats() {
    static const std::vector<NamedFormat> formats = {
        {"table", MakeTableFormat},
        {"jsonl", MakeJsonLinesFormat},
    };
    return formats;
}

}  // namespace zpregmon
