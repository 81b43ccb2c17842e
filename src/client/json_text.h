// Pieces of JSON that several formats write.
#pragma once

#include "client/text_sink.h"

#include <optional>
#include <string_view>

namespace zpregmon {

inline void PutJsonString(TextSink& out, WireText text) {
    out.Put('"');
    out.JsonText(text);
    out.Put('"');
}

inline void PutJsonHex(TextSink& out, Bytes bytes) {
    out.Put('"');
    out.Hex(bytes);
    out.Put('"');
}

inline void PutJsonStringOrNull(TextSink& out, const std::optional<WireText>& text) {
    if (text) {
        PutJsonString(out, *text);
    } else {
        out.Put("null");
    }
}

}  // namespace zpregmon
