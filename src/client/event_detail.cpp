#include "client/event_detail.h"

#include "client/security_text.h"
#include "client/system_names.h"
#include "client/text_sink.h"

namespace zpregmon {

/// One overload for each kind of payload.
struct EventDetail::Visitor {
    TextSink& out;
    const Event& event;
    EventDetail& detail;

    bool Labels() const { return detail.style_ == DataStyle::kLabelled; }

    /// In front of what is said about the value.
    void Name(WireText value, std::string_view separator) const {
        if (!Labels()) {
            PutValueName(out, value);
            out.Put(separator);
        }
    }

    void Index(std::uint32_t index) const {
        out.Put("index ");
        out.Number(index);
    }

    void operator()(const NoPayload&) const {}

    void operator()(const ValueSet& set) const {
        Name(set.value, " = ");
        detail.data_.PutTyped(out, set.type, set.data);
        if (set.previous) {
            out.Put(Labels() ? ", Previous: " : ", was ");
            detail.data_.PutData(out, set.type, *set.previous);
        }
    }

    void operator()(const ValueDeleted& deleted) const { Name(deleted.value, ""); }

    void operator()(const KeyRenamed& renamed) const {
        out.Put("to ");
        out.TerminalText(renamed.newName);
    }

    void operator()(const KeyInformation& key) const {
        if (event.Type() == zpregflt::RecordType::kKeyInformationSet) {
            detail.data_.PutSetInformation(out, key.informationClass, key.data);
        } else {
            detail.data_.PutKeyInformation(out, key.informationClass, key.data);
        }
    }

    void operator()(const ValueEnumerated& enumerated) const {
        if (Labels()) {
            Index(enumerated.index);
            out.Put(", ");
        }
        detail.data_.PutValueInformation(out, enumerated.informationClass, enumerated.data);
        if (!Labels()) {
            out.Put(", ");
            Index(enumerated.index);
        }
    }

    void operator()(const ValueQueried& queried) const {
        detail.data_.PutValueInformation(out, queried.informationClass, queried.data,
                                         Labels() ? std::nullopt : std::optional(queried.value));
    }

    void operator()(const ValuesQueried& values) const {
        for (std::uint32_t i = 0; i < values.size(); ++i) {
            const QueriedValue value = values[i];
            out.Put(i == 0 ? "" : ", ");
            if (value.value) {
                PutValueName(out, *value.value);
            } else {
                out.Put("(not recorded)");
            }
            out.Put(" = ");
            DataText(DataStyle::kShort).PutTyped(out, value.type, {value.size, value.data});
        }
    }

    void operator()(const HiveLoaded& hive) const {
        out.Put("as ");
        out.TerminalText(hive.name);
        out.Put(" from ");
        out.TerminalText(hive.file);
    }

    void operator()(const FileOperation& operation) const {
        const bool isSave = event.Type() == zpregflt::RecordType::kKeySaved;
        out.Put(isSave ? "to " : "from ");
        if (operation.file) {
            out.TerminalText(*operation.file);
        } else {
            out.Put("(file not recorded)");
        }
        const std::string_view name = isSave ? SaveFormatName(operation.options) : "";
        if (!name.empty()) {
            out.Put(", ");
            out.Put(name);
        } else {
            out.Format(", {} {:#x}", isSave ? "format" : "flags", operation.options);
        }
    }

    void operator()(const KeyReplaced& replaced) const {
        out.Put("by ");
        out.TerminalText(replaced.newFile);
        out.Put(", old file kept as ");
        out.TerminalText(replaced.oldFile);
    }

    void operator()(const KeySecuritySet& set) const {
        const struct {
            const std::optional<SecurityChange>& change;
            std::string_view label;
            void (*put)(TextSink&, Bytes);
        } parts[] = {
            {set.owner, "owner ", PutSid},
            {set.group, "group ", PutSid},
            {set.dacl, "dacl ", PutAcl},
            {set.sacl, "sacl ", PutAcl},
        };
        bool isFirst = true;
        for (const auto& part : parts) {
            if (part.change) {
                out.Put(isFirst ? "" : ", ");
                out.Put(part.label);
                part.put(out, part.change->before);
                out.Put(" -> ");
                part.put(out, part.change->after);
                isFirst = false;
            }
        }
    }

    void operator()(const KeySecurityQueried& queried) const {
        out.Format("information {:#x}, ", queried.information);
        PutDescriptor(out, queried.descriptor);
    }
};

void EventDetail::Put(TextSink& out, const Event& event) {
    event.Visit(Visitor{out, event, *this});
}

std::optional<WireText> ValueOf(const Event& event) {
    return event.Visit([](const auto& payload) -> std::optional<WireText> {
        if constexpr (requires { payload.value; }) {
            return payload.value;
        }
        return std::nullopt;
    });
}

}  // namespace zpregmon
