// Setting a key's flags, querying several values at once, and the query of a key's name.
#include "kernel/registry_fixture.h"

#include <array>

namespace platform {
namespace {

class QueryClassTest : public RegistryTest {
protected:
    ULONG Word(HANDLE key, KEY_INFORMATION_CLASS informationClass, std::size_t index = 0) {
        std::array<ULONG, 3> words{~0U, ~0U, ~0U};
        ULONG length = 0;
        EXPECT_EQ(NtQueryKey(key, informationClass, words.data(), sizeof(words), &length),
                  STATUS_SUCCESS);
        return words[index];
    }

    KeyHandle key_ = MakeKey(kTestKey);
};

TEST_F(QueryClassTest, WhatIsSetIsWhatIsQueried) {
    const struct {
        KEY_SET_INFORMATION_CLASS set;
        ULONG value;
        NTSTATUS status;
        KEY_INFORMATION_CLASS query;
        std::size_t word;
        ULONG answer;
        ACCESS_MASK needed;
    } cases[] = {
        {KeyWow64FlagsInformation, 5, STATUS_SUCCESS, KeyFlagsInformation, 0, 5, KEY_SET_VALUE},
        {KeyControlFlagsInformation, 8, STATUS_SUCCESS, KeyFlagsInformation, 2, 8, KEY_SET_VALUE},
        {KeySetVirtualizationInformation, 5, STATUS_SUCCESS, KeyVirtualizationInformation, 0, 20,
         KEY_SET_VALUE},
        {KeySetVirtualizationInformation, 8, STATUS_INVALID_PARAMETER, KeyVirtualizationInformation,
         0, 20, KEY_SET_VALUE},
        {KeySetHandleTagsInformation, 7, STATUS_SUCCESS, KeyHandleTagsInformation, 0, 7, 0},
        {KeySetDebugInformation, 7, STATUS_INVALID_INFO_CLASS, KeyTrustInformation, 0, 0,
         KEY_SET_VALUE},
    };
    const KeyHandle reader = OpenKeyOf(kTestKey, {.access = KEY_READ}).key;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.set);
        ULONG value = row.value;
        EXPECT_EQ(NtSetInformationKey(key_, row.set, &value, sizeof(value)), row.status);
        EXPECT_EQ(Word(key_, row.query, row.word), row.answer);
        if (NT_SUCCESS(row.status)) {
            EXPECT_EQ(NtSetInformationKey(key_, row.set, &value, 3), STATUS_INFO_LENGTH_MISMATCH);
        }
        if (row.needed != 0) {
            EXPECT_EQ(NtSetInformationKey(reader, row.set, &value, 4), STATUS_ACCESS_DENIED);
        }
    }
    EXPECT_EQ(Word(reader, KeyHandleTagsInformation), 0U) << "tags are each handle's own";
    const KeyHandle link =
        MakeKey(u"Link", {.root = key_, .options = REG_OPTION_CREATE_LINK | REG_OPTION_VOLATILE});
    EXPECT_EQ(Word(link, KeyFlagsInformation, 1), 3U);
}

TEST_F(QueryClassTest, SeveralValuesFillTheBufferInOrder) {
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
    UNICODE_STRING name = Describe(u"five");
    KEY_VALUE_ENTRY entry{&name, 0, 0, 0};
    char buffer[8];
    ULONG length = sizeof(buffer);
    EXPECT_EQ(NtQueryMultipleValueKey(key_, &entry, 0x10001, buffer, &length, nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(NtQueryMultipleValueKey(key_, &entry, 1, nullptr, &length, nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtQueryMultipleValueKey(key_, nullptr, 1, buffer, &length, nullptr),
              STATUS_ACCESS_VIOLATION);
}

TEST_F(QueryClassTest, NamesOfObjectsTellTheLengthThatTheyNeed) {
    constexpr std::u16string_view kName = u"\\REGISTRY\\MACHINE\\Test";
    constexpr ULONG kNeeded = 16 + 2 * (kName.size() + 1);
    struct {
        OBJECT_NAME_INFORMATION header;
        char16_t characters[64];
    } buffer{};
    for (const ULONG room : {0U, 15U, kNeeded - 1, kNeeded}) {
        ULONG needed = 0;
        EXPECT_EQ(NtQueryObject(key_, ObjectNameInformation, &buffer, room, &needed),
                  room < kNeeded ? STATUS_INFO_LENGTH_MISMATCH : STATUS_SUCCESS);
        EXPECT_EQ(needed, kNeeded);
    }
    EXPECT_EQ(View(buffer.header.Name), kName);
    EXPECT_EQ(NtQueryObject(key_, ObjectNameInformation, nullptr, kNeeded, nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtQueryObject(key_, ObjectTypeInformation, &buffer, kNeeded, nullptr),
              STATUS_INVALID_INFO_CLASS);
    EXPECT_EQ(NtQueryObject(nullptr, ObjectNameInformation, &buffer, kNeeded, nullptr),
              STATUS_INVALID_HANDLE);
}

}  // namespace
}  // namespace platform
