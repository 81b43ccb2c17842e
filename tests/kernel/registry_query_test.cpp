#include "kernel/registry_fixture.h"

#include <functional>

namespace platform {
namespace {

/// One kind of query with what a whole answer looks like.
struct QueryCase {
    const char* what;
    std::function<NTSTATUS(void* buffer, ULONG length, PULONG resultLength)> call;
    ULONG fixedLength;
    ULONG wholeLength;
};

class RegistryQueryTest : public RegistryTest {
protected:
    RegistryQueryTest() {
        MakeKey(u"Sub", {.root = key_, .className = u"Sort"});
        MakeKey(u"Subkey", {.root = key_});
        SetValue(key_, u"abc", REG_BINARY, "12345");
        SetValue(key_, u"empty", REG_SZ, "");
    }

    auto Key(KEY_INFORMATION_CLASS informationClass) {
        return [=, this](void* buffer, ULONG length, PULONG resultLength) {
            return NtQueryKey(key_, informationClass, buffer, length, resultLength);
        };
    }
    auto Subkey(ULONG index, KEY_INFORMATION_CLASS informationClass) {
        return [=, this](void* buffer, ULONG length, PULONG resultLength) {
            return NtEnumerateKey(key_, index, informationClass, buffer, length, resultLength);
        };
    }
    auto Value(std::u16string_view name, KEY_VALUE_INFORMATION_CLASS informationClass) {
        return [=, this](void* buffer, ULONG length, PULONG resultLength) {
            UNICODE_STRING text = Describe(name);
            return NtQueryValueKey(key_, &text, informationClass, buffer, length, resultLength);
        };
    }
    auto ValueAt(ULONG index, KEY_VALUE_INFORMATION_CLASS informationClass) {
        return [=, this](void* buffer, ULONG length, PULONG resultLength) {
            return NtEnumerateValueKey(key_, index, informationClass, buffer, length, resultLength);
        };
    }

    KeyHandle key_ = MakeKey(kTestKey, {.className = u"Kind"});
};

TEST_F(RegistryQueryTest, EveryBufferLengthGetsItsAnswer) {
    constexpr ULONG kFullName = 2 * 23;  // \REGISTRY\MACHINE\Test and no terminator
    static_assert(std::u16string_view(u"\\REGISTRY\\MACHINE\\Test").size() == 22);
    const QueryCase cases[] = {
        {"key basic", Key(KeyBasicInformation), 16, 16 + 8},
        {"key node", Key(KeyNodeInformation), 24, 24 + 8 + 8},
        {"key full", Key(KeyFullInformation), 44, 44 + 8},
        {"key name", Key(KeyNameInformation), 4, 4 + kFullName - 2},
        {"key cached", Key(KeyCachedInformation), 40, 40},
        {"key flags", Key(KeyFlagsInformation), 12, 12},
        {"key virtualization", Key(KeyVirtualizationInformation), 4, 4},
        {"key handle tags", Key(KeyHandleTagsInformation), 4, 4},
        {"key trust", Key(KeyTrustInformation), 4, 4},
        {"key layer", Key(KeyLayerInformation), 4, 4},
        {"subkey basic", Subkey(0, KeyBasicInformation), 16, 16 + 6},
        {"subkey node", Subkey(0, KeyNodeInformation), 24, 24 + 6 + 8},
        {"subkey node without class", Subkey(1, KeyNodeInformation), 24, 24 + 12},
        {"subkey full", Subkey(0, KeyFullInformation), 44, 44 + 8},
        {"value basic", Value(u"abc", KeyValueBasicInformation), 12, 12 + 6},
        {"value full", Value(u"abc", KeyValueFullInformation), 20, 28 + 5},
        {"value full of 64", Value(u"abc", KeyValueFullInformationAlign64), 20, 32 + 5},
        {"value partial", Value(u"abc", KeyValuePartialInformation), 12, 12 + 5},
        {"value partial of 64", Value(u"abc", KeyValuePartialInformationAlign64), 8, 8 + 5},
        {"empty value full", Value(u"empty", KeyValueFullInformation), 20, 20 + 10},
        {"enumerated basic", ValueAt(0, KeyValueBasicInformation), 12, 12 + 6},
        {"enumerated full", ValueAt(0, KeyValueFullInformation), 20, 28 + 5},
        {"enumerated partial", ValueAt(0, KeyValuePartialInformation), 12, 12 + 5},
    };
    for (const QueryCase& c : cases) {
        SCOPED_TRACE(c.what);
        constexpr char kUntouched = '\x5A';
        alignas(8) char whole[256];
        std::memset(whole, kUntouched, sizeof(whole));
        ULONG resultLength = 0;
        ASSERT_EQ(c.call(whole, sizeof(whole), &resultLength), STATUS_SUCCESS);
        ASSERT_EQ(resultLength, c.wholeLength);
        for (ULONG length = 0; length <= c.wholeLength + 1; ++length) {
            alignas(8) char buffer[256];
            std::memset(buffer, kUntouched, sizeof(buffer));
            resultLength = 0;
            const NTSTATUS status = c.call(buffer, length, &resultLength);
            const NTSTATUS expected = length < c.fixedLength   ? STATUS_BUFFER_TOO_SMALL
                                      : length < c.wholeLength ? STATUS_BUFFER_OVERFLOW
                                                               : STATUS_SUCCESS;
            const ULONG written =
                length < c.fixedLength ? 0 : std::min<ULONG>(length, c.wholeLength);
            ASSERT_EQ(status, expected) << length;
            ASSERT_EQ(resultLength, c.wholeLength) << length;
            ASSERT_EQ(std::memcmp(buffer, whole, written), 0) << length;
            for (ULONG i = written; i < sizeof(buffer); ++i)
                ASSERT_EQ(buffer[i], kUntouched);
        }
    }
}

TEST_F(RegistryQueryTest, ContentsOfKeyAnswers) {
    alignas(8) char buffer[256];
    ULONG length = 0;
    ASSERT_EQ(Key(KeyFullInformation)(buffer, sizeof(buffer), &length), STATUS_SUCCESS);
    const auto& full = *reinterpret_cast<const KEY_FULL_INFORMATION*>(buffer);
    EXPECT_EQ(full.SubKeys, 2U);
    EXPECT_EQ(full.MaxNameLen, 12U);
    EXPECT_EQ(full.MaxClassLen, 8U);
    EXPECT_EQ(full.Values, 2U);
    EXPECT_EQ(full.MaxValueNameLen, 10U);
    EXPECT_EQ(full.MaxValueDataLen, 5U);
    EXPECT_EQ(full.ClassOffset, 44U);
    EXPECT_EQ(std::memcmp(full.Class, u"Kind", 8), 0);

    ASSERT_EQ(Subkey(0, KeyNodeInformation)(buffer, sizeof(buffer), &length), STATUS_SUCCESS);
    const auto& node = *reinterpret_cast<const KEY_NODE_INFORMATION*>(buffer);
    EXPECT_EQ(std::memcmp(node.Name, u"Sub", 6), 0);
    EXPECT_EQ(node.ClassOffset, 30U);
    EXPECT_EQ(std::memcmp(buffer + node.ClassOffset, u"Sort", 8), 0);
    ASSERT_EQ(Subkey(1, KeyNodeInformation)(buffer, sizeof(buffer), &length), STATUS_SUCCESS);
    EXPECT_EQ(node.ClassOffset, ~0U);

    ASSERT_EQ(Key(KeyCachedInformation)(buffer, sizeof(buffer), &length), STATUS_SUCCESS);
    const auto& cached = *reinterpret_cast<const KEY_CACHED_INFORMATION*>(buffer);
    EXPECT_EQ(cached.SubKeys, 2U);
    EXPECT_EQ(cached.Values, 2U);
    EXPECT_EQ(cached.NameLength, 8U);
}

TEST_F(RegistryQueryTest, ContentsOfValueAnswers) {
    alignas(8) char buffer[256];
    ULONG length = 0;
    for (const auto informationClass : {KeyValueFullInformation, KeyValueFullInformationAlign64}) {
        ASSERT_EQ(Value(u"abc", informationClass)(buffer, sizeof(buffer), &length), STATUS_SUCCESS);
        const auto& full = *reinterpret_cast<const KEY_VALUE_FULL_INFORMATION*>(buffer);
        EXPECT_EQ(full.Type, REG_BINARY);
        EXPECT_EQ(full.DataOffset, informationClass == KeyValueFullInformation ? 28U : 32U);
        EXPECT_EQ(std::memcmp(buffer + full.DataOffset, "12345", full.DataLength), 0);
        EXPECT_EQ(std::memcmp(full.Name, u"abc", full.NameLength), 0);
    }
    ASSERT_EQ(Value(u"empty", KeyValueFullInformation)(buffer, sizeof(buffer), &length),
              STATUS_SUCCESS);
    EXPECT_EQ(reinterpret_cast<const KEY_VALUE_FULL_INFORMATION*>(buffer)->DataOffset, ~0U);
}

TEST_F(RegistryQueryTest, EndsAndClassesThatDoNotExist) {
    char buffer[64];
    ULONG length = 0;
    for (const ULONG index : {2u, ~0u}) {
        EXPECT_EQ(Subkey(index, KeyBasicInformation)(buffer, 64, &length), STATUS_NO_MORE_ENTRIES);
        EXPECT_EQ(ValueAt(index, KeyValueBasicInformation)(buffer, 64, &length),
                  STATUS_NO_MORE_ENTRIES);
    }
    EXPECT_EQ(Subkey(0, KeyNameInformation)(buffer, 64, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Key(static_cast<KEY_INFORMATION_CLASS>(10))(buffer, 64, &length),
              STATUS_INVALID_PARAMETER);
}

TEST_F(RegistryQueryTest, SubkeysComeByUpperCaseName) {
    const KeyHandle parent = MakeKey(u"Order", {.root = key_});
    for (const auto* name : {u"b", u"_", u"A", u"c", u"B1", u"a0", u"\u00E9", u"\u00C8"}) {
        MakeKey(name, {.root = parent});
    }
    EXPECT_EQ(SubkeyNames(parent), (std::vector<std::u16string>{u"A", u"a0", u"b", u"B1", u"c",
                                                                u"_", u"\u00C8", u"\u00E9"}));
    EXPECT_EQ(OpenKeyOf(u"\u00C9", {.root = parent}).status, STATUS_SUCCESS);
}

TEST_F(RegistryQueryTest, SeveralValuesFillTheBufferInOrder) {
    SetValue(key_, u"five", REG_BINARY, "12345");
    SetValue(key_, u"none", REG_NONE, "");
    SetValue(key_, u"", REG_SZ, "ab");
    const struct {
        std::vector<const char16_t*> names;
        ULONG room;
        NTSTATUS status;
        ULONG used, required;
        std::vector<ULONG> offsets;  ///< of the entries that were filled
    } cases[] = {
        {{}, 0, STATUS_SUCCESS, 0, 0, {}},
        {{u"five"}, 5, STATUS_SUCCESS, 5, 5, {0}},
        {{u"FIVE", u"", u"none"}, 12, STATUS_SUCCESS, 12, 12, {0, 8, 12}},
        {{u"none", u"five", u"five"}, 13, STATUS_SUCCESS, 13, 13, {0, 0, 8}},
        // What comes behind the first that does not fit is only counted.
        {{u"five", u"five", u"none"}, 12, STATUS_BUFFER_OVERFLOW, 5, 16, {0}},
        {{u"five"}, 0, STATUS_BUFFER_OVERFLOW, 0, 5, {}},
        {{u"five", u"missing"}, 64, STATUS_OBJECT_NAME_NOT_FOUND, 64, 77, {0}},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(&row - cases);
        std::vector<UNICODE_STRING> names;
        for (const char16_t* name : row.names) {
            names.push_back(Describe(name));
        }
        constexpr ULONG kUntouched = 99;
        std::vector<KEY_VALUE_ENTRY> entries;
        for (UNICODE_STRING& name : names) {
            entries.push_back({&name, kUntouched, kUntouched, kUntouched});
        }
        char buffer[64]{};
        ULONG length = row.room;
        ULONG required = 77;
        EXPECT_EQ(NtQueryMultipleValueKey(key_, entries.data(), static_cast<ULONG>(entries.size()),
                                          buffer, &length, &required),
                  row.status);
        EXPECT_EQ(length, row.used);
        EXPECT_EQ(required, row.required);
        for (std::size_t index = 0; index < entries.size(); ++index) {
            const KEY_VALUE_ENTRY& entry = entries[index];
            const bool filled = index < row.offsets.size();
            EXPECT_EQ(entry.DataOffset, filled ? row.offsets[index] : kUntouched) << index;
            if (!filled) continue;
            const ValueData value = QueryValue(key_, row.names[index]);
            EXPECT_EQ(entry.Type, value.type);
            EXPECT_EQ(std::string(buffer + entry.DataOffset, entry.DataLength), value.data);
        }
    }
    ULONG length = 8;
    EXPECT_EQ(NtQueryMultipleValueKey(key_, nullptr, 1, &length, &length, nullptr),
              STATUS_ACCESS_VIOLATION);
}

}  // namespace
}  // namespace platform
