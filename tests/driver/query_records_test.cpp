// Records of operations that read: their layout, and what becomes of memory of the caller that
// cannot be read or changes meanwhile.
#include "driver/record_test.h"
#include "intercept/tracing.h"
#include "kernel/unreadable_memory.h"

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::Describe;
using platform::UnreadableMemory;

class QueryRecordsTest : public RecordTest {
protected:
    void SetUp() override { StartRecording(~0u); }
};

/// Whatever the caller was given is in the record, behind the parameters of the request.
TEST_F(QueryRecordsTest, AnswersOfTheRegistry) {
    alignas(8) char answer[512];
    ULONG length = 0;
    UNICODE_STRING name = Describe(u"Value");
    const auto prepare = [](HANDLE key) {
        platform::SetValue(key, u"Value", REG_BINARY, "12345");
        const KeyHandle subkey = platform::MakeKey(std::u16string(kKey) + u"\\Sub");
    };
    const SECURITY_INFORMATION kParts = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    const struct {
        RecordType type;
        std::vector<std::uint32_t> parameters;  ///< from 40 on, the length and the data behind them
        std::function<NTSTATUS(HANDLE)> query;
    } cases[] = {
        // clang-format off
        {RecordType::kSubkeyEnumerated, {KeyNodeInformation}, [&](HANDLE key) {
             return NtEnumerateKey(key, 0, KeyNodeInformation, answer, 512, &length); }},
        {RecordType::kValueEnumerated, {0, KeyValueFullInformation}, [&](HANDLE key) {
             return NtEnumerateValueKey(key, 0, KeyValueFullInformation, answer, 512, &length); }},
        {RecordType::kKeyQueried, {KeyFullInformation}, [&](HANDLE key) {
             return NtQueryKey(key, KeyFullInformation, answer, 512, &length); }},
        {RecordType::kValueQueried, {52 + 20, KeyValuePartialInformation}, [&](HANDLE key) {
             return NtQueryValueKey(key, &name, KeyValuePartialInformation, answer, 512, &length); }},
        {RecordType::kKeySecurityQueried, {kParts}, [&](HANDLE key) {
             return NtQuerySecurityObject(key, kParts, answer, 512, &length); }},
        // clang-format on
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(static_cast<std::uint32_t>(c.type));
        const RawRecord record = RecordedOne(c.type, [&](HANDLE key) {
            prepare(key);
            ASSERT_EQ(c.query(key), STATUS_SUCCESS);
        });
        EXPECT_EQ(record.key, kKey);
        std::size_t offset = 40;
        for (const std::uint32_t parameter : c.parameters) {
            EXPECT_EQ(record.Number(offset), parameter);
            offset += 4;
        }
        EXPECT_GT(length, 0u);
        EXPECT_EQ(record.Number(offset), length);
        EXPECT_EQ(record.Data(offset + 4, length), std::string(answer, length));
        if (c.type == RecordType::kValueQueried) {
            EXPECT_EQ(record.Text(record.Number(40)), "Value");
        }
        // What fails, and what is told only in part, is not recorded.
        EXPECT_TRUE(Recorded({c.type}, [&](HANDLE) { c.query(nullptr); }).empty());
    }
    EXPECT_EQ(RecordedOne(RecordType::kKeyNameQueried,
                          [&](HANDLE key) {
                              EXPECT_EQ(NtQueryObject(key, ObjectNameInformation, answer,
                                                      sizeof(answer), &length),
                                        STATUS_SUCCESS);
                          })
                  .key,
              kKey);
}

TEST_F(QueryRecordsTest, NameOfAQueriedValueIsAligned) {
    const std::pair<ULONG, ULONG> cases[] = {{0, 52}, {1, 56}, {4, 56}, {5, 60}, {8, 60}, {9, 64}};
    for (const auto& [size, nameOffset] : cases) {
        const std::string data(size, 'd');
        ULONG length = size;
        UNICODE_STRING name = Describe(u"v");
        const RawRecord record = RecordedOne(RecordType::kValueQueried, [&](HANDLE key) {
            REG_QUERY_VALUE_KEY_INFORMATION query = {};
            query.ValueName = &name;
            query.KeyValueInformationClass = KeyValueBasicInformation;
            query.KeyValueInformation = const_cast<char*>(data.data());
            query.ResultLength = &length;
            EXPECT_TRUE(Notifier(key).After(RegNtPostQueryValueKey, query));
        });
        EXPECT_EQ(record.Number(40), nameOffset) << size;
        EXPECT_EQ(record.Number(48), size);
        EXPECT_EQ(record.Data(52, size), data);
        EXPECT_EQ(record.Text(nameOffset), "v") << size;
    }
}

/// Results that fit into no buffer, however their sizes are summed, leave no record.
TEST_F(QueryRecordsTest, ResultsThatFitNowhere) {
    Recorded({}, [](HANDLE key) {
        Notifier notifier(key);
        UNICODE_STRING name = Describe(u"v");
        for (ULONG length : {0x10000u, 0x7FFFFFFFu, MAXULONG - 56, MAXULONG - 48, MAXULONG - 47,
                             MAXULONG - 3, MAXULONG}) {
            REG_QUERY_KEY_INFORMATION key5 = {};
            key5.ResultLength = &length;
            EXPECT_FALSE(notifier.After(RegNtPostQueryKey, key5)) << length;
            REG_QUERY_VALUE_KEY_INFORMATION value = {};
            value.ValueName = &name;
            value.ResultLength = &length;
            EXPECT_FALSE(notifier.After(RegNtPostQueryValueKey, value)) << length;
            REG_ENUMERATE_VALUE_KEY_INFORMATION enumeration = {};
            enumeration.ResultLength = &length;
            EXPECT_FALSE(notifier.After(RegNtPostEnumerateValueKey, enumeration)) << length;
            REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION values = {};
            values.BufferLength = &length;
            EXPECT_FALSE(notifier.After(RegNtPostQueryMultipleValueKey, values)) << length;
        }
    });
}

TEST_F(QueryRecordsTest, AnswersThatCannotBeRead) {
    UnreadableMemory memory;
    UnreadableMemory nameMemory;
    UNICODE_STRING name = Describe(u"name");
    ULONG length = 6;
    auto* const badLength = static_cast<PULONG>(memory.Place("", 0));
    void* const badData = nameMemory.Place("123456", 5);
    UNICODE_STRING badName = name;
    badName.Buffer = static_cast<PWSTR>(badData);
    const auto query = [](UNICODE_STRING* value, void* data, PULONG resultLength) {
        return [=](HANDLE key) {
            REG_QUERY_VALUE_KEY_INFORMATION request = {};
            request.ValueName = value;
            request.KeyValueInformation = data;
            request.ResultLength = resultLength;
            Notifier(key).After(RegNtPostQueryValueKey, request);
        };
    };
    char good[] = "123456";
    EXPECT_TRUE(Recorded({RecordType::kValueQueried}, query(&name, good, badLength)).empty());
    struct Case {
        UNICODE_STRING* name;
        void* data;
        std::string recordedName;
    };
    for (const Case& c : {Case{&name, badData, "name"},
                          {&badName, good, ""},
                          {&badName, badData, ""},
                          {reinterpret_cast<UNICODE_STRING*>(badLength), badData, ""}}) {
        const RawRecord record =
            RecordedOne(RecordType::kValueQueried, query(c.name, c.data, &length));
        EXPECT_EQ(record.Number(40), 60u);
        EXPECT_EQ(record.Number(48), 0u);
        EXPECT_EQ(record.Text(60), c.recordedName);
    }
    // Half a character is none: the record stays readable.
    name.Length -= 1;
    EXPECT_EQ(RecordedOne(RecordType::kValueQueried, query(&name, good, &length)).Text(60), "nam");

    const auto information = [](PULONG resultLength, void* data) {
        return [=](HANDLE key) {
            Notifier notifier(key);
            SECURITY_INFORMATION requested = 4;
            REG_ENUMERATE_KEY_INFORMATION subkey = {};
            REG_ENUMERATE_VALUE_KEY_INFORMATION value = {};
            REG_QUERY_KEY_INFORMATION queried = {};
            REG_QUERY_KEY_SECURITY_INFORMATION security = {};
            subkey.ResultLength = value.ResultLength = queried.ResultLength = resultLength;
            subkey.KeyInformation = value.KeyValueInformation = queried.KeyInformation = data;
            security.Length = resultLength;
            security.SecurityInformation = &requested;
            security.SecurityDescriptor = data;
            notifier.After(RegNtPostEnumerateKey, subkey);
            notifier.After(RegNtPostEnumerateValueKey, value);
            notifier.After(RegNtPostQueryKey, queried);
            notifier.After(RegNtPostQueryKeySecurity, security);
        };
    };
    const std::initializer_list<RecordType> kTypes = {
        RecordType::kSubkeyEnumerated, RecordType::kValueEnumerated, RecordType::kKeyQueried,
        RecordType::kKeySecurityQueried};
    EXPECT_TRUE(Recorded(kTypes, information(badLength, good)).empty());
    const auto records = Recorded(kTypes, information(&length, badData));
    ASSERT_EQ(records.size(), kTypes.size());
    for (const RawRecord& record : records) {
        EXPECT_EQ(record.Number(record.type == RecordType::kValueEnumerated ? 48 : 44), 0u);
    }
}

// --- Several values ------------------------------------------------------------------------------

/// A request as a caller makes it, with its answer filled in.
struct ValuesRequest {
    std::vector<std::u16string> names;
    std::vector<UNICODE_STRING> strings;
    std::vector<KEY_VALUE_ENTRY> entries;
    std::string data;
    ULONG length = 0;

    ValuesRequest(std::vector<std::u16string> valueNames, std::string answer)
        : names(std::move(valueNames)), data(std::move(answer)) {
        for (const std::u16string& name : names)
            strings.push_back(Describe(name));
        ULONG offset = 0;
        for (UNICODE_STRING& name : strings) {
            entries.push_back({&name, 1, offset, REG_BINARY});
            ++offset;
        }
        length = static_cast<ULONG>(data.size());
    }
    REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION Information() {
        REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION information = {};
        information.ValueEntries = entries.data();
        information.EntryCount = static_cast<ULONG>(entries.size());
        information.ValueBuffer = data.data();
        information.BufferLength = &length;
        return information;
    }
    /// Returns whether there is a record.
    bool Notify(HANDLE key) {
        auto information = Information();
        return Notifier(key).After(RegNtPostQueryMultipleValueKey, information);
    }
};

/// "name=data" of each entry. All lie where the layout says.
std::vector<std::string> Values(const RawRecord& record, ULONG dataOffset) {
    std::vector<std::string> values;
    const ULONG count = record.Number(40);
    ULONG nameOffset = 44 + 16 * count;
    for (ULONG entry = 44; entry != 44 + 16 * count; entry += 16) {
        EXPECT_EQ(record.Number(entry + 12), nameOffset);
        EXPECT_EQ(record.Number(entry + 8), ULONG{REG_BINARY});
        EXPECT_GE(record.Number(entry + 4), dataOffset);
        values.push_back(record.Text(nameOffset) + "=" +
                         record.Data(record.Number(entry + 4), record.Number(entry)));
        while (record.At<char16_t>(nameOffset) != 0)
            nameOffset += 2;
        nameOffset += 2;
    }
    EXPECT_LE(nameOffset, dataOffset);
    return values;
}

TEST_F(QueryRecordsTest, SeveralValues) {
    struct Case {
        std::vector<std::u16string> names;
        std::string data;
        ULONG dataOffset;
        std::vector<std::string> values;
    };
    for (const Case& c : {Case{{}, "", 44, {}},
                          {{}, "unused", 44, {}},
                          {{u""}, "1", 44 + 16 + 4, {"=1"}},
                          {{u"a"}, "1", 44 + 16 + 4, {"a=1"}},
                          {{u"ab", u"", u"c"}, "123", 44 + 48 + 12, {"ab=1", "=2", "c=3"}},
                          {{u"ab", u"c"}, "12", 44 + 32 + 12, {"ab=1", "c=2"}}}) {
        ValuesRequest request(c.names, c.data);
        const RawRecord record = RecordedOne(RecordType::kValuesQueried,
                                             [&](HANDLE key) { EXPECT_TRUE(request.Notify(key)); });
        EXPECT_EQ(record.Number(40), c.names.size());
        EXPECT_EQ(Values(record, c.dataOffset), c.values);
        EXPECT_EQ(record.Data(c.dataOffset, c.data.size()), c.data);
    }
    // As the registry answers, and thousands.
    const RawRecord real = RecordedOne(RecordType::kValuesQueried, [&](HANDLE key) {
        platform::SetValue(key, u"first", REG_BINARY, "1st");
        platform::SetValue(key, u"second", REG_BINARY, "2nd value");
        ValuesRequest request({u"second", u"first"}, std::string(64, '.'));
        ASSERT_EQ(NtQueryMultipleValueKey(key, request.entries.data(), 2, request.data.data(),
                                          &request.length, nullptr),
                  STATUS_SUCCESS);
    });
    EXPECT_EQ(Values(real, 44 + 32 + 28),
              (std::vector<std::string>{"second=2nd value", "first=1st"}));
    std::vector<std::u16string> names;
    std::vector<std::string> expected;
    for (char16_t i = 0; i < 5000; ++i) {
        names.push_back(std::u16string(i % 7, u'n') + u"!");
        expected.push_back(platform::ToUtf8(names.back()) + "=" + static_cast<char>('0' + i % 10));
    }
    std::string data;
    for (const std::string& value : expected)
        data += value.back();
    ValuesRequest many(names, data);
    const RawRecord record = RecordedOne(
        RecordType::kValuesQueried, [&](HANDLE key) { EXPECT_TRUE(many.Notify(key)); }, 0x100000);
    EXPECT_EQ(Values(record, static_cast<ULONG>(record.Number(44 + 4))), expected);
}

TEST_F(QueryRecordsTest, SeveralValuesThatCannotBeRead) {
    UnreadableMemory memory;
    void* const bad = memory.Place("x", 1);
    // What the sizes depend on: no record.
    const std::vector<
        std::function<void(ValuesRequest&, REG_QUERY_MULTIPLE_VALUE_KEY_INFORMATION&)>>
        losses = {
            [&](auto&, auto& query) { query.ValueEntries = static_cast<PKEY_VALUE_ENTRY>(bad); },
            [&](auto& request, auto&) {
                request.entries[1].ValueName = static_cast<PUNICODE_STRING>(bad);
            },
            [&](auto&, auto& query) { query.BufferLength = static_cast<PULONG>(bad); },
        };
    for (const auto& lose : losses) {
        ValuesRequest request({u"a", u"b", u"c"}, "123");
        Recorded({}, [&](HANDLE key) {
            auto query = request.Information();
            lose(request, query);
            EXPECT_FALSE(Notifier(key).After(RegNtPostQueryMultipleValueKey, query));
        });
    }
    // Entries of a program may point into the system's memory, where a fault stops the machine.
    struct {
        KEY_VALUE_ENTRY entry;
        UNICODE_STRING name;
    } scene = {{&scene.name, 0, 0, 0}, {}};
    const auto notify = [&](HANDLE key) {
        ValuesRequest request({}, "");
        auto query = request.Information();
        query.ValueEntries = &scene.entry;
        query.EntryCount = 1;
        return Notifier(key).After(RegNtPostQueryMultipleValueKey, query);
    };
    const ULONG_PTR end = MmUserProbeAddress;
    MmUserProbeAddress = reinterpret_cast<ULONG_PTR>(&scene.name);
    Recorded({}, [&](HANDLE key) { EXPECT_FALSE(notify(key)); });
    MmUserProbeAddress = end;
    RecordedOne(RecordType::kValuesQueried, [&](HANDLE key) { EXPECT_TRUE(notify(key)); });
    // One name, and the data: the record goes without.
    ValuesRequest request({u"a", u"lost", u"c"}, "123");
    request.strings[1].Buffer = static_cast<PWSTR>(bad);
    EXPECT_EQ(Values(RecordedOne(RecordType::kValuesQueried,
                                 [&](HANDLE key) { EXPECT_TRUE(request.Notify(key)); }),
                     44 + 48 + 20),
              (std::vector<std::string>{"a=1", "=2", "c=3"}));
    const RawRecord record = RecordedOne(RecordType::kValuesQueried, [&](HANDLE key) {
        auto query = request.Information();
        query.ValueBuffer = bad;
        EXPECT_TRUE(Notifier(key).After(RegNtPostQueryMultipleValueKey, query));
    });
    EXPECT_EQ(record.Data(44 + 48 + 20, 3), std::string(3, '\0'));
}

/// The caller changes the names between the time when the record is sized and when it is filled:
/// just then the buffer before is sealed, which is traced.
class ChangingNamesTest : public RecordTest {
protected:
    void SetUp() override {
        SetParameter(u"Report", u"Operations", operation::kQueryMultipleValueKey);
        StartWithoutBootBuffers();
    }
};

TEST_F(ChangingNamesTest, TheRecordKeepsWithinItsSpace) {
    struct Case {
        std::vector<std::u16string> later;
        std::vector<std::string> values;
    };
    const std::vector<std::u16string> kBefore = {u"aa", u"bb", u"cc"};
    const std::u16string kLong(0x7000, u'x');
    for (const Case& c : {Case{{u"aa", u"bb", u"cc"}, {"aa=1", "bb=2", "cc=3"}},
                          {{u"", u"", u""}, {"=1", "=2", "=3"}},
                          {{kLong, u"bb", u"cc"}, {"=1", "bb=2", "cc=3"}},
                          {{u"aa", u"bb", u"ccc"}, {"aa=1", "bb=2", "=3"}},
                          {{u"aaaaaa", u"bb", u"c"}, {"aaaaaa=1", "=2", "=3"}},
                          {{kLong, kLong, kLong}, {"=1", "=2", "=3"}}}) {
        ValuesRequest request(kBefore, "123");
        const ValuesRequest changed(c.later, "123");
        bool sealed = false;
        std::optional<platform::TraceController> controller;
        controller.emplace(kTraceProviderId, [&](const platform::TraceEvent& event) {
            if (event.NarrowText(0).find("sealed") == std::string::npos) return;
            sealed = true;
            for (std::size_t i = 0; i < request.strings.size(); ++i)
                request.strings[i] = changed.strings[i];
        });
        // One for the key's creation, one that is filled but for a few bytes, one for the record.
        const std::unique_ptr<Loan> loans[] = {TheClient().Lend(), TheClient().Lend(),
                                               TheClient().Lend()};
        {
            const ThreadScope thread(Worker());
            const KeyHandle key = platform::MakeKey(kKey);
            WriteMark(1);
            WriteMark(2, 0xFFE0);
            controller->Enable(TRACE_LEVEL_VERBOSE, TRACE_BUFFER);
            EXPECT_TRUE(request.Notify(key));
            controller.reset();
            EXPECT_TRUE(sealed);
            WriteMark(3);
        }
        std::vector<std::string> values;
        for (const auto& loan : loans) {
            for (const Record& record : loan->Records()) {
                if (record.header.Type != RecordType::kValuesQueried) continue;
                EXPECT_EQ(record.key, kKey) << "the path lies right behind the record";
                const auto bytes = loan->Memory().subspan(record.offset);
                const RawRecord raw{record.header.Type, {}, {bytes.begin(), bytes.end()}};
                constexpr ULONG kDataOffset = 44 + 48 + 20;
                EXPECT_EQ(raw.Data(kDataOffset, 3), "123");
                values = Values(raw, kDataOffset);
            }
        }
        EXPECT_EQ(values, c.values);
    }
}

}  // namespace

}  // namespace driver_test
