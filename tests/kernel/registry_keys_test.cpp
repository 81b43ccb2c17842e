#include "kernel/registry_fixture.h"

#include <functional>

namespace platform {
namespace {

using RegistryKeysTest = RegistryTest;

void* const kBadAddress = reinterpret_cast<void*>(0x10);

TEST_F(RegistryKeysTest, NamesLeadWhereTheyShould) {
    const KeyHandle test = MakeKey(kTestKey);
    const std::u16string longest(255, u'x');
    const KeyHandle longKey = MakeKey(longest, {.root = test});
    const struct {
        std::u16string name;
        bool isRelative;
        NTSTATUS status;
    } cases[] = {
        {u"\\REGISTRY\\", false, STATUS_SUCCESS},
        {u"\\Registry\\\\Machine\\TEST\\\\", false, STATUS_SUCCESS},
        {u"\\Registry\\Machine\\Nothing\\Below", false, STATUS_OBJECT_NAME_NOT_FOUND},
        {u"\\Registr\\Machine", false, STATUS_OBJECT_PATH_NOT_FOUND},
        {u"\\RegistryX\\Machine", false, STATUS_OBJECT_PATH_NOT_FOUND},
        {u"Machine", false, STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"", false, STATUS_OBJECT_PATH_SYNTAX_BAD},
        {u"", true, STATUS_SUCCESS},
        {longest, true, STATUS_SUCCESS},
        {longest + u"y", true, STATUS_INVALID_PARAMETER},
        {u"\\Registry\\Machine", true, STATUS_OBJECT_PATH_SYNTAX_BAD},
    };
    for (const auto& c : cases) {
        const Opened opened =
            OpenKeyOf(c.name, {.root = c.isRelative ? static_cast<HANDLE>(test) : nullptr});
        EXPECT_EQ(opened.status, c.status) << ToUtf8(c.name);
        EXPECT_EQ(opened.key != nullptr, NT_SUCCESS(c.status)) << ToUtf8(c.name);
    }
}

TEST_F(RegistryKeysTest, CreateMakesTheLastComponentOnlyAndKeepsItsCase) {
    EXPECT_EQ(CreateKeyOf(u"\\Registry\\Machine\\A\\B").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(OpenKeyOf(u"\\Registry\\Machine\\A").status, STATUS_OBJECT_NAME_NOT_FOUND);

    const Opened made = CreateKeyOf(u"\\registry\\machine\\SoftWare", {.className = u"first"});
    EXPECT_EQ(made.disposition, REG_CREATED_NEW_KEY);
    const Opened again = CreateKeyOf(u"\\Registry\\Machine\\SOFTWARE", {.className = u"second"});
    EXPECT_EQ(again.status, STATUS_SUCCESS);
    EXPECT_EQ(again.disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(FullName(again.key), u"\\REGISTRY\\MACHINE\\SoftWare");
    alignas(8) char buffer[64];
    ULONG length = 0;
    ASSERT_EQ(NtQueryKey(again.key, KeyFullInformation, buffer, sizeof(buffer), &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length - offsetof(KEY_FULL_INFORMATION, Class), 2 * std::strlen("first"));
    EXPECT_EQ(CreateKeyOf(u"", {.root = again.key}).disposition, REG_OPENED_EXISTING_KEY);
}

TEST_F(RegistryKeysTest, KeysUnderVolatileOnesAreVolatile) {
    const KeyHandle parent = MakeKey(kTestKey, {.options = REG_OPTION_VOLATILE});
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent}).status, STATUS_CHILD_MUST_BE_VOLATILE);
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent, .options = REG_OPTION_VOLATILE}).status,
              STATUS_SUCCESS);
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent}).status, STATUS_SUCCESS);
}

TEST_F(RegistryKeysTest, ADeletedKeyIsGoneForEveryHandle) {
    for (const auto* permanent : {u"\\Registry", u"\\Registry\\Machine"}) {
        EXPECT_EQ(NtDeleteKey(OpenKeyOf(permanent).key), STATUS_CANNOT_DELETE);
    }
    const KeyHandle test = MakeKey(kTestKey);
    const KeyHandle child = MakeKey(u"Child", {.root = test});
    const KeyHandle other = MakeKey(u"Child", {.root = test});
    EXPECT_EQ(NtDeleteKey(test), STATUS_CANNOT_DELETE);
    EXPECT_EQ(NtDeleteKey(child), STATUS_SUCCESS);
    EXPECT_EQ(OpenKeyOf(u"Child", {.root = test}).status, STATUS_OBJECT_NAME_NOT_FOUND);

    char buffer[64];
    ULONG length = 0;
    UNICODE_STRING name = Describe(u"Name");
    KEY_WRITE_TIME_INFORMATION time{};
    const NTSTATUS results[] = {
        SetValue(other, u"V", REG_SZ, "x"),
        DeleteValue(other, u"V"),
        QueryValue(other, u"V").status,
        NtEnumerateValueKey(other, 0, KeyValueBasicInformation, buffer, sizeof(buffer), &length),
        NtEnumerateKey(other, 0, KeyBasicInformation, buffer, sizeof(buffer), &length),
        NtQueryKey(other, KeyFullInformation, buffer, sizeof(buffer), &length),
        NtRenameKey(other, &name),
        NtFlushKey(other),
        NtSetInformationKey(other, KeyWriteTimeInformation, &time, sizeof(time)),
        CreateKeyOf(u"X", {.root = other}).status,
        OpenKeyOf(u"", {.root = other}).status,
    };
    for (const NTSTATUS& status : results)
        EXPECT_EQ(status, STATUS_KEY_DELETED) << "operation " << &status - results;
    EXPECT_EQ(NtDeleteKey(other), STATUS_SUCCESS);

    // The name is free again, for a key of its own.
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = test}).disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(NtFlushKey(other), STATUS_KEY_DELETED);
}

TEST_F(RegistryKeysTest, RenamingMovesTheKeyInTheOrderAndTakesItsSubkeysAlong) {
    const KeyHandle test = MakeKey(kTestKey);
    const KeyHandle b = MakeKey(u"b", {.root = test});
    const KeyHandle below = MakeKey(u"Below", {.root = b});
    MakeKey(u"C", {.root = test});
    const KeyHandle machine = OpenKeyOf(u"\\Registry\\Machine").key;
    const struct {
        HANDLE key;
        std::u16string_view name;
        NTSTATUS status;
    } cases[] = {
        {b, u"", STATUS_INVALID_PARAMETER}, {b, u"x\\y", STATUS_INVALID_PARAMETER},
        {b, u"c", STATUS_CANNOT_DELETE},    {machine, u"x", STATUS_ACCESS_DENIED},
        {b, u"B", STATUS_SUCCESS},          {b, u"Last", STATUS_SUCCESS},
    };
    for (const auto& c : cases) {
        UNICODE_STRING name = Describe(c.name);
        EXPECT_EQ(NtRenameKey(c.key, &name), c.status) << ToUtf8(c.name);
    }
    EXPECT_EQ(SubkeyNames(test), (std::vector<std::u16string>{u"C", u"Last"}));
    EXPECT_EQ(FullName(below), u"\\REGISTRY\\MACHINE\\Test\\Last\\Below");
    EXPECT_EQ(OpenKeyOf(u"LAST\\BELOW", {.root = test}).status, STATUS_SUCCESS);
    EXPECT_EQ(OpenKeyOf(u"b", {.root = test}).status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(RegistryKeysTest, EveryOperationNeedsItsRightInTheHandle) {
    static char buffer[64];
    static ULONG length = 0;
    static UNICODE_STRING name = Describe(u"Test");
    static KEY_WRITE_TIME_INFORMATION time{};
    const struct {
        const char* operation;
        ACCESS_MASK needed;
        NTSTATUS (*call)(HANDLE);
    } cases[] = {
        // clang-format off
        {"set", KEY_SET_VALUE, [](HANDLE key) { return SetValue(key, u"V", REG_SZ, "x"); }},
        {"query value", KEY_QUERY_VALUE, [](HANDLE key) { return QueryValue(key, u"V").status; }},
        {"enumerate values", KEY_QUERY_VALUE, [](HANDLE key) {
            return NtEnumerateValueKey(key, 0, KeyValueBasicInformation, buffer, 64, &length); }},
        {"query", KEY_QUERY_VALUE, [](HANDLE key) {
            return NtQueryKey(key, KeyBasicInformation, buffer, 64, &length); }},
        {"name", 0, [](HANDLE key) { return NtQueryKey(key, KeyNameInformation, buffer, 64, &length); }},
        {"create below", 0, [](HANDLE key) { return CreateKeyOf(u"X", {.root = key}).status; }},
        {"enumerate", KEY_ENUMERATE_SUB_KEYS, [](HANDLE key) {
            return NtEnumerateKey(key, 0, KeyBasicInformation, buffer, 64, &length); }},
        {"set time", KEY_SET_VALUE, [](HANDLE key) {
            return NtSetInformationKey(key, KeyWriteTimeInformation, &time, sizeof(time)); }},
        {"flush", 0, [](HANDLE key) { return NtFlushKey(key); }},
        {"rename", KEY_WRITE, [](HANDLE key) { return NtRenameKey(key, &name); }},
        {"delete value", KEY_SET_VALUE, [](HANDLE key) { return DeleteValue(key, u"V"); }},
        {"delete", DELETE_ACCESS, [](HANDLE key) {
            NtDeleteKey(OpenKeyOf(u"X", {.root = key}).key);
            return NtDeleteKey(key); }},
        // clang-format on
    };
    MakeKey(kTestKey);
    for (const auto& c : cases) {
        const KeyHandle without = OpenKeyOf(kTestKey, {.access = KEY_ALL_ACCESS & ~c.needed}).key;
        const KeyHandle with = OpenKeyOf(kTestKey, {.access = c.needed}).key;
        if (c.needed != 0) {
            EXPECT_EQ(c.call(without), STATUS_ACCESS_DENIED) << c.operation;
        }
        const NTSTATUS status = c.call(with);
        EXPECT_TRUE(status == STATUS_SUCCESS || status == STATUS_BUFFER_OVERFLOW) << c.operation;
    }
}

TEST_F(RegistryKeysTest, BadArgumentsGiveAStatusAndMakeNothing) {
    UNICODE_STRING name = Describe(u"\\Registry\\Machine\\New");
    UNICODE_STRING badName{8, 8, static_cast<PWSTR>(kBadAddress)};
    UNICODE_STRING relative = Describe(u"New");
    UNICODE_STRING oddName = name;
    oddName.Length -= 1;
    auto* const noName = static_cast<PUNICODE_STRING>(kBadAddress);
    constexpr ULONG kLength = sizeof(OBJECT_ATTRIBUTES);
    const struct {
        ULONG length, attributes, options;
        HANDLE root;
        PUNICODE_STRING name;
        NTSTATUS status;
    } cases[] = {
        {40, 0, 0, nullptr, &name, STATUS_INVALID_PARAMETER},
        {kLength, 0x10000, 0, nullptr, &name, STATUS_INVALID_PARAMETER},
        {kLength, 0, 0x100, nullptr, &name, STATUS_INVALID_PARAMETER},
        {kLength, 0, 0, nullptr, noName, STATUS_ACCESS_VIOLATION},
        {kLength, 0, 0, nullptr, &badName, STATUS_ACCESS_VIOLATION},
        {kLength, 0, 0, nullptr, &oddName, STATUS_OBJECT_NAME_INVALID},
        {kLength, 0, 0, reinterpret_cast<HANDLE>(0x80000050), &relative, STATUS_INVALID_HANDLE},
    };
    HANDLE handle = nullptr;
    for (const auto& c : cases) {
        OBJECT_ATTRIBUTES attributes{c.length, c.root, c.name, c.attributes, nullptr, nullptr};
        EXPECT_EQ(NtCreateKey(&handle, KEY_READ, &attributes, 0, nullptr, c.options, nullptr),
                  c.status)
            << &c - cases;
    }
    OBJECT_ATTRIBUTES attributes{kLength, nullptr, &name, 0, nullptr, nullptr};
    EXPECT_EQ(NtCreateKey(static_cast<PHANDLE>(kBadAddress), KEY_READ, &attributes, 0, nullptr, 0,
                          nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtCreateKey(&handle, KEY_READ, static_cast<POBJECT_ATTRIBUTES>(kBadAddress), 0,
                          nullptr, 0, nullptr),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(OpenKeyOf(u"\\Registry\\Machine\\New").status, STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(RegistryKeysTest, TheTreeHasADeepestLevel) {
    KeyHandle key = MakeKey(kTestKey);
    unsigned depth = 2;
    for (Opened next = CreateKeyOf(u"d", {.root = key}); NT_SUCCESS(next.status);
         next = CreateKeyOf(u"d", {.root = key})) {
        key = std::move(next.key);
        ++depth;
    }
    EXPECT_EQ(depth, 512U);
    EXPECT_EQ(CreateKeyOf(u"d", {.root = key}).status, STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace platform
