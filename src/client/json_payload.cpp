#include "client/json_payload.h"

#include "client/json_text.h"
#include "client/security_text.h"
#include "client/system_names.h"

namespace zpregmon {

namespace {

/// One overload for each kind of payload.
struct PayloadKeys {
    TextSink& out;
    zpregflt::RecordType type;

    void SizeAndData(const CapturedData& data) const {
        out.Put("\"size\":");
        out.Number(data.size);
        out.Put(",\"data\":");
        PutJsonHex(out, data.captured);
    }

    void ClassAndData(std::uint32_t informationClass, Bytes data) const {
        out.Put("\"class\":");
        out.Number(informationClass);
        out.Put(",\"data\":");
        PutJsonHex(out, data);
    }

    void operator()(const NoPayload&) const {}

    void operator()(const ValueSet& set) const {
        out.Put(",\"value\":");
        PutJsonString(out, set.value);
        out.Put(",\"type\":");
        PutJsonValueType(out, set.type);
        out.Put(',');
        SizeAndData(set.data);
        if (set.previous) {
            out.Put(",\"previous\":{");
            SizeAndData(*set.previous);
            out.Put('}');
        } else {
            out.Put(",\"previous\":null");
        }
    }

    void operator()(const ValueDeleted& deleted) const {
        out.Put(",\"value\":");
        PutJsonString(out, deleted.value);
    }

    void operator()(const KeyRenamed& renamed) const {
        out.Put(",\"new_name\":");
        PutJsonString(out, renamed.newName);
    }

    void operator()(const KeyInformation& key) const {
        out.Put(',');
        ClassAndData(key.informationClass, key.data);
    }

    void operator()(const ValueEnumerated& enumerated) const {
        out.Put(",\"index\":");
        out.Number(enumerated.index);
        out.Put(',');
        ClassAndData(enumerated.informationClass, enumerated.data);
    }

    void operator()(const ValueQueried& queried) const {
        out.Put(",\"value\":");
        PutJsonString(out, queried.value);
        out.Put(',');
        ClassAndData(queried.informationClass, queried.data);
    }

    void operator()(const ValuesQueried& values) const {
        out.Put(",\"values\":[");
        for (std::uint32_t i = 0; i < values.size(); ++i) {
            const QueriedValue value = values[i];
            out.Put(i == 0 ? "{\"value\":" : ",{\"value\":");
            PutJsonStringOrNull(out, value.value);
            out.Put(",\"type\":");
            PutJsonValueType(out, value.type);
            out.Put(',');
            SizeAndData({value.size, value.data});
            out.Put('}');
        }
        out.Put(']');
    }

    void operator()(const HiveLoaded& hive) const {
        out.Put(",\"name\":");
        PutJsonString(out, hive.name);
        out.Put(",\"file\":");
        PutJsonString(out, hive.file);
    }

    void operator()(const FileOperation& operation) const {
        out.Put(type == zpregflt::RecordType::kKeySaved ? ",\"format\":" : ",\"flags\":");
        out.Number(operation.options);
        out.Put(",\"file\":");
        PutJsonStringOrNull(out, operation.file);
    }

    void operator()(const KeyReplaced& replaced) const {
        out.Put(",\"new_file\":");
        PutJsonString(out, replaced.newFile);
        out.Put(",\"old_file\":");
        PutJsonString(out, replaced.oldFile);
    }

    void Change(std::string_view key, const std::optional<SecurityChange>& change,
                void (*put)(TextSink&, Bytes)) const {
        out.Put(key);
        if (!change) {
            out.Put("null");
            return;
        }
        out.Put("{\"old\":\"");
        put(out, change->before);
        out.Put("\",\"new\":\"");
        put(out, change->after);
        out.Put("\"}");
    }

    void operator()(const KeySecuritySet& set) const {
        constexpr auto kHex = [](TextSink& sink, Bytes bytes) { sink.Hex(bytes); };
        Change(",\"owner\":", set.owner, PutSid);
        Change(",\"group\":", set.group, PutSid);
        Change(",\"dacl\":", set.dacl, kHex);
        Change(",\"sacl\":", set.sacl, kHex);
    }

    void operator()(const KeySecurityQueried& queried) const {
        out.Put(",\"information\":");
        out.Number(queried.information);
        out.Put(",\"descriptor\":");
        PutJsonHex(out, queried.descriptor);
    }
};

}  // namespace

void PutJsonValueType(TextSink& out, std::uint32_t type) {
    if (const std::string_view name = ValueTypeName(type); !name.empty()) {
        out.Put('"');
        out.Put(name);
        out.Put('"');
    } else {
        out.Format("\"{:#x}\"", type);
    }
}

void PutPayloadKeys(TextSink& out, const Event& event) {
    event.Visit(PayloadKeys{out, event.Type()});
}

}  // namespace zpregmon
