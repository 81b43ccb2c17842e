#include "client/data_text.h"

#include "client/information_layout.h"
#include "client/system_names.h"
#include "client/text_sink.h"

#include <algorithm>

namespace zpregmon {

namespace {

void PutNumberAndHex(TextSink& out, std::uint64_t number) {
    out.Number(number);
    if (number >= 10) {
        out.Format(" ({:#x})", number);
    }
}

void PutStrings(TextSink& out, Bytes data) {
    out.Put('[');
    bool isFirst = true;
    ForEachString(data, [&](WireText text) {
        out.Put(isFirst ? "" : ", ");
        PutQuoted(out, text);
        isFirst = false;
    });
    out.Put(']');
}

/// Everything that is no number. False: the bytes are not what the type wants.
bool PutAsText(TextSink& out, std::uint32_t type, const CapturedData& data) {
    const bool isCut = data.captured.size() < data.size;
    if (data.captured.size() % sizeof(char16_t) != 0 && !isCut) {
        return false;
    }
    switch (type) {
        case kRegSz:
        case kRegExpandSz:
        case kRegLink:
            PutQuoted(out, StringData(data.captured));
            return true;
        case kRegMultiSz:
            PutStrings(out, data.captured);
            return true;
        default:
            return false;
    }
}

/// A field of a list of fields.
void PutLabel(TextSink& out, bool& isFirst, std::string_view label) {
    out.Put(isFirst ? "" : ", ");
    out.Put(label);
    out.Put(' ');
    isFirst = false;
}

void PutClass(TextSink& out, std::string_view name, std::uint32_t informationClass) {
    if (name.empty()) {
        out.Format("class {}", informationClass);
    } else {
        out.Put(name);
    }
}

}  // namespace

void PutQuoted(TextSink& out, WireText text) {
    out.Put('"');
    out.TerminalText(text);
    out.Put('"');
}

void PutValueName(TextSink& out, WireText name) {
    if (name.empty()) {
        out.Put("(Default)");
    } else {
        out.TerminalText(name);
    }
}

WireText StringData(Bytes data) {
    WireText text(data.data(), data.size() / sizeof(char16_t));
    while (!text.empty() && text[text.size() - 1] == 0) {
        text = text.Prefix(text.size() - 1);
    }
    return text;
}

std::optional<std::uint64_t> NumberData(std::uint32_t type, Bytes data) {
    const bool isBigEndian = type == kRegDwordBigEndian;
    const std::size_t size = type == kRegDword || isBigEndian ? 4 : type == kRegQword ? 8 : 0;
    if (size == 0 || data.size() != size) {
        return std::nullopt;
    }
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i) {
        number = number << 8 | std::to_integer<std::uint64_t>(data[isBigEndian ? i : size - 1 - i]);
    }
    return number;
}

void DataText::PutTypeName(TextSink& out, std::uint32_t type) const {
    if (const std::string_view name = ValueTypeName(type); !name.empty()) {
        out.Put(name);
    } else {
        out.Format("{:#x}", type);
    }
}

void DataText::PutTyped(TextSink& out, std::uint32_t type, const CapturedData& data) const {
    const bool labels = style_ == DataStyle::kLabelled;
    out.Put(labels ? "Type: " : "");
    PutTypeName(out, type);
    if (labels) {
        out.Put(", Length: ");
        out.Number(data.size);
        out.Put(", Data: ");
    } else {
        out.Put(' ');
    }
    PutData(out, type, data);
}

void DataText::PutData(TextSink& out, std::uint32_t type, const CapturedData& data) const {
    const std::size_t have = data.captured.size();
    if (have == 0 && data.size != 0) {
        out.Format("(none of {} bytes)", data.size);
        return;
    }
    std::size_t shown = have;
    if (const auto number = NumberData(type, data.captured); number && have == data.size) {
        PutNumberAndHex(out, *number);
    } else if (!PutAsText(out, type, data)) {
        shown = std::min(have, kMostHexBytes);
        out.Hex(data.captured.first(shown));
        out.Put(shown == 0 ? "(empty)" : "");
    }
    if (shown < data.size) {
        out.Format("... ({} of {} bytes)", shown, data.size);
    }
}

void DataText::PutTime(TextSink& out, std::uint64_t time) {
    out.Put(time_.Write(time));
    out.Put('Z');
}

template <typename Function>
void DataText::PutWithClass(TextSink& out, std::string_view name, std::uint32_t informationClass,
                            Function&& putFields) const {
    if (style_ == DataStyle::kLabelled) {
        PutClass(out, name, informationClass);
        out.Put(' ');
        putFields();
    } else {
        putFields();
        out.Put(", ");
        PutClass(out, name, informationClass);
    }
}

void DataText::PutKeyFacts(TextSink& out, const KeyFacts& facts) {
    bool isFirst = true;
    if (facts.name) {
        PutLabel(out, isFirst, "name");
        PutQuoted(out, *facts.name);
    }
    if (facts.className) {
        PutLabel(out, isFirst, "class");
        PutQuoted(out, *facts.className);
    }
    if (facts.subkeys) {
        PutLabel(out, isFirst, "subkeys");
        out.Number(*facts.subkeys);
    }
    if (facts.values) {
        PutLabel(out, isFirst, "values");
        out.Number(*facts.values);
    }
    if (facts.lastWrite) {
        PutLabel(out, isFirst, "written");
        PutTime(out, *facts.lastWrite);
    }
}

void DataText::PutKeyInformation(TextSink& out, std::uint32_t informationClass, Bytes data) {
    PutWithClass(out, KeyInformationName(informationClass), informationClass, [&] {
        if (const auto facts = ReadKeyInformation(informationClass, data)) {
            PutKeyFacts(out, *facts);
        } else {
            PutData(out, kRegBinary, {static_cast<std::uint32_t>(data.size()), data});
        }
    });
}

void DataText::PutValueInformation(TextSink& out, std::uint32_t informationClass, Bytes data,
                                   std::optional<WireText> value) {
    PutWithClass(out, ValueInformationName(informationClass), informationClass, [&] {
        const std::optional<ValueFacts> facts = ReadValueInformation(informationClass, data);
        if (const auto name = value || !facts ? value : facts->name) {
            PutValueName(out, *name);
            out.Put(style_ == DataStyle::kLabelled ? ", " : " = ");
        }
        if (!facts) {
            PutData(out, kRegBinary, {static_cast<std::uint32_t>(data.size()), data});
        } else if (facts->data) {
            PutTyped(out, facts->type, *facts->data);
        } else {
            PutTypeName(out, facts->type);
        }
    });
}

void DataText::PutSetInformation(TextSink& out, std::uint32_t informationClass, Bytes data) {
    constexpr std::uint32_t kWriteTime = 0;
    PutWithClass(out, SetInformationName(informationClass), informationClass, [&] {
        if (informationClass == kWriteTime && data.size() == sizeof(std::uint64_t)) {
            PutTime(out, LoadField<std::uint64_t>(data, 0));
        } else if (data.size() == sizeof(std::uint32_t)) {
            PutData(out, kRegDword, {sizeof(std::uint32_t), data});
        } else {
            PutData(out, kRegBinary, {static_cast<std::uint32_t>(data.size()), data});
        }
    });
}

}  // namespace zpregmon
