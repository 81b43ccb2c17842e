#include "client/data_text.h"
#include "client/event_time.h"
#include "client/format.h"
#include "client/information_layout.h"
#include "client/json_payload.h"
#include "client/json_text.h"
#include "client/path_text.h"
#include "client/process_text.h"
#include "client/registry_path.h"
#include "client/security_text.h"
#include "client/system_names.h"
#include "client/vocabulary.h"

#include <fmt/format.h>

#include <cstdlib>

namespace zpregmon {

namespace {

using zpregflt::RecordType;

/// Classes of the schema's Windows extension.
enum ClassId : std::uint32_t { kKeyActivity = 201001, kValueActivity = 201002 };

struct Activity {
    ClassId classId;
    std::uint32_t id;
    std::string_view name;
};

constexpr std::uint32_t kOther = 99;

Activity ActivityOf(const Event& event) {
    switch (event.Type()) {
        case RecordType::kValueSet:
            return event.As<ValueSet>()->previous ? Activity{kValueActivity, 3, "Modify"}
                                                  : Activity{kValueActivity, 2, "Set"};
        case RecordType::kValueDeleted:
            return {kValueActivity, 4, "Delete"};
        case RecordType::kValueEnumerated:
        case RecordType::kValueQueried:
        case RecordType::kValuesQueried:
            return {kValueActivity, 1, "Get"};
        case RecordType::kKeyCreated:
            return {kKeyActivity, 1, "Create"};
        case RecordType::kSubkeyEnumerated:
        case RecordType::kKeyQueried:
        case RecordType::kKeyNameQueried:
        case RecordType::kKeySecurityQueried:
            return {kKeyActivity, 2, "Read"};
        case RecordType::kKeyInformationSet:
        case RecordType::kKeySecuritySet:
        case RecordType::kKeyReplaced:
            return {kKeyActivity, 3, "Modify"};
        case RecordType::kKeyDeleted:
            return {kKeyActivity, 4, "Delete"};
        case RecordType::kKeyRenamed:
            return {kKeyActivity, 5, "Rename"};
        case RecordType::kKeyRestored:
            return {kKeyActivity, 7, "Restore"};
        case RecordType::kHiveLoaded:
            return {kKeyActivity, 8, "Import"};
        case RecordType::kKeySaved:
            return {kKeyActivity, 9, "Export"};
        case RecordType::kKeyFlushed:
            return {kKeyActivity, kOther, "Flush"};
        case RecordType::kHiveUnloaded:
            return {kKeyActivity, kOther, "Unload"};
        case RecordType::kKeyHandleClosed:
        case RecordType::kBufferHeader:
            break;
    }
    return {kKeyActivity, kOther, "Close"};
}

void PutActivity(TextSink& out, const Activity& activity) {
    const std::string_view className =
        activity.classId == kKeyActivity ? "Registry Key Activity" : "Registry Value Activity";
    out.Put("\"class_uid\":");
    out.Number(activity.classId);
    out.Put(",\"class_name\":\"");
    out.Put(className);
    out.Put("\",\"category_uid\":1,\"category_name\":\"System Activity\",\"activity_id\":");
    out.Number(activity.id);
    out.Put(",\"activity_name\":\"");
    out.Put(activity.name);
    out.Put("\",\"type_uid\":");
    out.Number(activity.classId * 100 + activity.id);
    out.Put(",\"type_name\":\"");
    out.Put(className);
    out.Put(": ");
    out.Put(activity.id == kOther ? "Other" : activity.name);
    out.Put('"');
}

/// The schema's number for a value type.
std::uint32_t TypeId(std::uint32_t type) {
    switch (type) {
        case 0:
            return 7;  // REG_NONE
        case kRegSz:
            return 10;
        case kRegExpandSz:
            return 4;
        case kRegBinary:
            return 1;
        case kRegDword:
            return 2;
        case kRegDwordBigEndian:
            return 3;
        case kRegLink:
            return 5;
        case kRegMultiSz:
            return 6;
        case kRegQword:
            return 8;
        default:
            return kOther;
    }
}

void PutSigned(TextSink& out, std::int64_t number) {
    if (number < 0) {
        out.Put('-');
    }
    out.Number(static_cast<std::uint64_t>(std::abs(number)));
}

std::string HivePathText(std::u16string_view key) {
    TextBuffer text;
    {
        TextSink out(text);
        const ShortPath path = ShortenPath(key);
        out.Put(path.root == "HKLM"  ? "HKEY_LOCAL_MACHINE"
                : path.root == "HKU" ? "HKEY_USERS"
                                     : "");
        out.JsonText(path.rest);
    }
    return fmt::to_string(text);
}

void PutStrings(TextSink& out, Bytes data) {
    out.Put('[');
    bool isFirst = true;
    ForEachString(data, [&](WireText text) {
        out.Put(isFirst ? "" : ",");
        PutJsonString(out, text);
        isFirst = false;
    });
    out.Put(']');
}

bool IsCut(const CapturedData& data) {
    return data.captured.size() < data.size;
}

void PutData(TextSink& out, std::uint32_t type, const CapturedData& data) {
    const bool isCut = IsCut(data);
    const bool isText = data.captured.size() % sizeof(char16_t) == 0 || isCut;
    if (const auto number = NumberData(type, data.captured); number && !isCut) {
        out.Number(*number);
    } else if (isText && (type == kRegSz || type == kRegExpandSz || type == kRegLink)) {
        PutJsonString(out, StringData(data.captured));
    } else if (isText && type == kRegMultiSz) {
        PutStrings(out, data.captured);
    } else {
        PutJsonHex(out, data.captured);
    }
}

/// A value as far as an event knows it.
struct Value {
    std::optional<WireText> name;
    std::optional<std::uint32_t> type;
    std::optional<CapturedData> data;
};

Value FromInformation(std::optional<WireText> name, std::uint32_t informationClass, Bytes data) {
    Value value{name, std::nullopt, std::nullopt};
    if (const auto facts = ReadValueInformation(informationClass, data)) {
        value.name = facts->name ? facts->name : name;
        value.type = facts->type;
        value.data = facts->data;
    }
    return value;
}

/// `dataType`: what the data is read as.
void PutValue(TextSink& out, std::string_view path, const Value& value, std::uint32_t dataType) {
    const WireText name = value.name.value_or(WireText());
    out.Put("{\"name\":");
    PutJsonString(out, name);
    out.Put(",\"path\":\"");
    out.Put(path);
    out.Put("\",\"is_default\":");
    out.Put(value.name && name.empty() ? "true" : "false");
    if (value.type) {
        out.Put(",\"type\":");
        PutJsonValueType(out, *value.type);
        out.Put(",\"type_id\":");
        out.Number(TypeId(*value.type));
    }
    if (value.data && (value.data->size == 0 || !value.data->captured.empty())) {
        out.Put(",\"data\":");
        PutData(out, dataType, *value.data);
    }
    out.Put('}');
}

/// The sizes of data that is not there as a whole.
void PutMissing(TextSink& out, const std::optional<CapturedData>& data,
                const std::optional<CapturedData>& previous) {
    const bool isCut = data && IsCut(*data);
    const bool wasCut = previous && IsCut(*previous);
    if (!isCut && !wasCut) {
        return;
    }
    out.Put(",\"unmapped\":{");
    if (isCut) {
        out.Put("\"size\":");
        out.Number(data->size);
    }
    if (wasCut) {
        out.Put(isCut ? "," : "");
        out.Put("\"previous\":{\"size\":");
        out.Number(previous->size);
        out.Put('}');
    }
    out.Put('}');
}

void PutKey(TextSink& out, std::string_view path, const Event& event) {
    if (const auto renamed = event.As<KeyRenamed>()) {
        out.Put("\"reg_key\":{\"path\":\"");
        if (event.Key()) {
            out.Put(HivePathText(event.Key()->substr(0, event.Key()->rfind(u'\\') + 1)));
        }
        out.JsonText(renamed->newName);
        out.Put("\"},\"prev_");
    } else {
        out.Put('"');
    }
    out.Put("reg_key\":{\"path\":\"");
    out.Put(path);
    out.Put('"');
    if (const auto queried = event.As<KeySecurityQueried>()) {
        out.Put(",\"security_descriptor\":\"");
        PutDescriptor(out, queried->descriptor);
        out.Put('"');
    }
    out.Put('}');
}

std::string ActorText(std::uint32_t processId, const std::u16string* image) {
    TextBuffer text;
    {
        TextSink out(text);
        out.Format("\"pid\":{}", processId);
        if (image != nullptr) {
            const WireText name(FileName(*image));
            out.Put(",\"name\":");
            PutJsonString(out, name);
            out.Put(",\"file\":{\"name\":");
            PutJsonString(out, name);
            out.Put(",\"path\":");
            PutJsonString(out, *image);
            out.Put(",\"type_id\":1}");  // a regular file
        }
    }
    return fmt::to_string(text);
}

class OcsfFormat final : public EventFormat {
public:
    explicit OcsfFormat(const ProcessImages* images) : processes_(images, ActorText) {}

    void Append(const Event& event, TextBuffer& buffer) override {
        TextSink out(buffer);
        const auto put = [&](const Value& value) { AppendValue(out, event, value); };
        if (const auto set = event.As<ValueSet>()) {
            AppendValue(out, event, {set->value, set->type, set->data}, set->previous);
        } else if (const auto deleted = event.As<ValueDeleted>()) {
            put({deleted->value, std::nullopt, std::nullopt});
        } else if (const auto enumerated = event.As<ValueEnumerated>()) {
            put(FromInformation(std::nullopt, enumerated->informationClass, enumerated->data));
        } else if (const auto queried = event.As<ValueQueried>()) {
            put(FromInformation(queried->value, queried->informationClass, queried->data));
        } else if (const auto values = event.As<ValuesQueried>()) {
            for (std::uint32_t i = 0; i < values->size(); ++i) {
                const QueriedValue value = (*values)[i];
                put({value.value, value.type, CapturedData{value.size, value.data}});
            }
        } else {
            PutCommon(out, event);
            PutKey(out, Path(event), event);
            out.Put(",\"unmapped\":{\"record\":\"");
            out.Put(RecordName(event.Type()));
            out.Put('"');
            PutPayloadKeys(out, event);
            out.Put("}}\n");
        }
    }

private:
    void AppendValue(TextSink& out, const Event& event, const Value& value,
                     const std::optional<CapturedData>& previous = {}) {
        const std::uint32_t dataType = value.type.value_or(kRegBinary);
        PutCommon(out, event);
        out.Put("\"reg_value\":");
        PutValue(out, Path(event), value, dataType);
        if (previous) {
            out.Put(",\"prev_reg_value\":");  // whose type is not recorded
            PutValue(out, Path(event), {value.name, std::nullopt, previous}, dataType);
        }
        PutMissing(out, value.data, previous);
        out.Put("}\n");
    }

    /// As text in JSON; valid until the next call.
    std::string_view Path(const Event& event) {
        return event.Key() ? std::string_view(paths_.Get(*event.Key(), HivePathText)) : "";
    }

    /// Everything but the key or value.
    void PutCommon(TextSink& out, const Event& event) {
        out.Put('{');
        PutActivity(out, ActivityOf(event));
        out.Put(",\"time\":");
        PutSigned(out, UnixMilliseconds(event.SystemTime()));
        out.Put(
            ",\"severity_id\":1,\"severity\":\"Informational\",\"status_id\":1,"
            "\"status\":\"Success\","
            "\"metadata\":{\"version\":\"1.3.0\",\"product\":{\"name\":\"zpregmon\","
            "\"vendor_name\":\"zpregflt\"},\"extensions\":[{\"name\":\"win\",\"uid\":\"2\","
            "\"version\":\"1.3.0\"}],\"original_time\":\"");
        out.Put(time_.Write(event.SystemTime()));
        out.Put(
            "Z\"},\"device\":{\"name\":\"unknown\",\"type_id\":0,\"type\":\"Unknown\","
            "\"os\":{\"name\":\"Windows\",\"type_id\":100,\"type\":\"Windows\"}},"
            "\"actor\":{\"process\":{");
        out.Put(processes_.Get(event.ProcessId()));
        out.Put(",\"uid\":\"0x");
        out.Hex64(event.ProcessKey());
        out.Put("\"}},");
    }

    EventTimeText time_;
    PathTextCache paths_;
    ProcessTextCache processes_;
};

}  // namespace

std::unique_ptr<EventFormat> MakeOcsfFormat(const FormatSettings& settings) {
    return std::make_unique<OcsfFormat>(settings.images);
}

}  // namespace zpregmon
