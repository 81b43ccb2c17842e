#include "client/data_text.h"
#include "client/event_detail.h"
#include "client/event_time.h"
#include "client/format.h"
#include "client/json_text.h"
#include "client/path_text.h"
#include "client/process_text.h"
#include "client/registry_path.h"
#include "client/system_names.h"

#include <fmt/format.h>

namespace zpregmon {

namespace {

using zpregflt::RecordType;

/// How a kind is told; no type: not at all.
struct Kind {
    int id = 0;
    std::string_view type;
};

Kind KindOf(RecordType type) {
    switch (type) {
        case RecordType::kKeyCreated:
            return {12, "CreateKey"};
        case RecordType::kKeyDeleted:
            return {12, "DeleteKey"};
        case RecordType::kValueDeleted:
            return {12, "DeleteValue"};
        case RecordType::kValueSet:
            return {13, "SetValue"};
        case RecordType::kKeyRenamed:
            return {14, "RenameKey"};
        default:
            return {};
    }
}

bool StartsWith(WireText text, std::u16string_view lowerCase) {
    if (text.size() < lowerCase.size()) {
        return false;
    }
    for (std::size_t i = 0; i < lowerCase.size(); ++i) {
        if (FoldCase(text[i]) != lowerCase[i]) {
            return false;
        }
    }
    return true;
}

/// Rules know the control set in use by its link, HKLM\System\CurrentControlSet.
void PutPath(TextSink& out, std::u16string_view key) {
    constexpr std::u16string_view kControlSet = u"\\system\\controlset";
    constexpr std::size_t kSystem = std::u16string_view(u"\\system").size();
    constexpr std::size_t kDigits = 3;
    const ShortPath path = ShortenPath(key);
    out.Put(path.root);
    if (path.root == "HKLM" && StartsWith(path.rest, kControlSet)) {
        const WireText behind = path.rest.Substring(kControlSet.size());
        if (behind.size() >= kDigits && behind[0] == u'0' && behind[1] == u'0' &&
            (behind.size() == kDigits || behind[kDigits] == u'\\')) {
            out.JsonText(path.rest.Prefix(kSystem));
            out.JsonText(u"\\CurrentControlSet");
            out.JsonText(behind.Substring(kDigits));
            return;
        }
    }
    out.JsonText(path.rest);
}

std::string TargetPathText(std::u16string_view key) {
    TextBuffer text;
    {
        TextSink out(text);
        PutPath(out, key);
    }
    return fmt::to_string(text);
}

void PutTarget(TextSink& out, const Event& event, PathTextCache& paths) {
    if (event.Key()) {
        out.Put(paths.Get(*event.Key(), TargetPathText));
    }
    if (const std::optional<WireText> value = ValueOf(event)) {
        out.JsonText(u"\\");
        if (value->empty()) {
            out.Put("(Default)");
        } else {
            out.JsonText(*value);
        }
    }
}

void PutTextDetails(TextSink& out, Bytes captured, bool isCut) {
    if (const WireText text = StringData(captured); !text.empty() || isCut) {
        out.JsonText(text);
        out.Put(isCut ? "..." : "");
    } else {
        out.Put("(Empty)");
    }
}

/// Only what rules read from the data needs it; the rest is told by the type.
void PutDetails(TextSink& out, const ValueSet& set) {
    const auto& [size, captured] = set.data;
    const bool isCut = captured.size() < size;
    const bool isText = set.type == kRegSz || set.type == kRegExpandSz;
    const bool isNumber =
        set.type == kRegDword || set.type == kRegDwordBigEndian || set.type == kRegQword;
    if (isCut && (isNumber || (isText && captured.empty()))) {
        out.Format("(not captured, {} bytes)", size);
    } else if (isText) {
        PutTextDetails(out, captured, isCut);
    } else if (const auto number = NumberData(set.type, captured); !number) {
        out.Put("Binary Data");
    } else if (set.type == kRegQword) {
        out.Format("QWORD (0x{:08x}-0x{:08x})", *number >> 32, *number & 0xFFFFFFFF);
    } else {
        out.Format("DWORD (0x{:08x})", *number);
    }
}

/// The new name in the place of the path's last part.
void PutNewName(TextSink& out, const Event& event, const KeyRenamed& renamed) {
    if (event.Key()) {
        PutPath(out, event.Key()->substr(0, event.Key()->rfind(u'\\') + 1));
    }
    out.JsonText(renamed.newName);
}

std::string ProcessKeys(std::uint32_t processId, const std::u16string* image) {
    TextBuffer text;
    {
        TextSink out(text);
        out.Format("\",\"ProcessId\":{},\"Image\":\"", processId);
        out.JsonText(image != nullptr ? WireText(*image) : WireText(u"<unknown process>"));
    }
    return fmt::to_string(text);
}

class SysmonFormat final : public EventFormat {
public:
    explicit SysmonFormat(const ProcessImages* images) : processes_(images, ProcessKeys) {}

    void Append(const Event& event, TextBuffer& buffer) override {
        const Kind kind = KindOf(event.Type());
        if (kind.type.empty()) {
            return;
        }
        TextSink out(buffer);
        out.Put("{\"EventID\":");
        out.Number(static_cast<std::uint64_t>(kind.id));
        out.Put(",\"EventType\":\"");
        out.Put(kind.type);
        out.Put("\",\"UtcTime\":\"");
        PutTime(out, event.SystemTime());
        out.Put(processes_.Get(event.ProcessId()));
        out.Put("\",\"TargetObject\":\"");
        PutTarget(out, event, paths_);
        if (const auto set = event.As<ValueSet>()) {
            out.Put("\",\"Details\":\"");
            PutDetails(out, *set);
        } else if (const auto renamed = event.As<KeyRenamed>()) {
            out.Put("\",\"NewName\":\"");
            PutNewName(out, event, *renamed);
        }
        out.Put("\"}\n");
    }

private:
    /// 2026-11-22 19:42:51.123
    void PutTime(TextSink& out, std::uint64_t time) {
        constexpr std::size_t kSurplusDecimals = 4;
        std::string_view text = time_.Write(time);
        text.remove_suffix(kSurplusDecimals);
        const std::size_t dateEnd = text.find('T');
        out.Put(text.substr(0, dateEnd));
        out.Put(' ');
        out.Put(text.substr(dateEnd + 1));
    }

    EventTimeText time_;
    PathTextCache paths_;
    ProcessTextCache processes_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeSysmonFormat(const FormatSettings& settings) {
    return std::make_unique<SysmonFormat>(settings.images);
}

}  // namespace zpregmon
