#include "kernel/registry_fixture.h"

#include "platform/kernel/fault_injection.h"

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
        {u"\\Registry", false, STATUS_SUCCESS},
        {u"\\REGISTRY\\", false, STATUS_SUCCESS},
        {u"\\registry\\user", false, STATUS_SUCCESS},
        {u"\\Registry\\\\Machine\\TEST\\\\", false, STATUS_SUCCESS},
        {u"\\Registry\\Machine\\Nothing", false, STATUS_OBJECT_NAME_NOT_FOUND},
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
    EXPECT_EQ(SubkeyNames(OpenKeyOf(u"\\Registry\\Machine").key),
              std::vector<std::u16string>{u"SoftWare"});

    alignas(8) char buffer[64];
    ULONG length = 0;
    ASSERT_EQ(NtQueryKey(again.key, KeyFullInformation, buffer, sizeof(buffer), &length),
              STATUS_SUCCESS);
    EXPECT_EQ(length - offsetof(KEY_FULL_INFORMATION, Class), 2 * std::strlen("first"));
}

TEST_F(RegistryKeysTest, AnEmptyNameIsTheRootItself) {
    const KeyHandle test = MakeKey(kTestKey);
    const Opened created = CreateKeyOf(u"", {.root = test});
    EXPECT_EQ(created.disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(FullName(created.key), u"\\REGISTRY\\MACHINE\\Test");
}

TEST_F(RegistryKeysTest, KeysUnderVolatileOnesAreVolatile) {
    const KeyHandle parent = MakeKey(kTestKey, {.options = REG_OPTION_VOLATILE});
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent}).status, STATUS_CHILD_MUST_BE_VOLATILE);
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent, .options = REG_OPTION_VOLATILE}).status,
              STATUS_SUCCESS);
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = parent}).status, STATUS_SUCCESS);
}

TEST_F(RegistryKeysTest, ADeletedKeyIsGoneForEveryHandle) {
    const KeyHandle test = MakeKey(kTestKey);
    KeyHandle child = MakeKey(u"Child", {.root = test});
    const KeyHandle other = MakeKey(u"Child", {.root = test});
    EXPECT_EQ(NtDeleteKey(test), STATUS_CANNOT_DELETE);
    EXPECT_EQ(NtDeleteKey(child), STATUS_SUCCESS);
    EXPECT_EQ(OpenKeyOf(u"Child", {.root = test}).status, STATUS_OBJECT_NAME_NOT_FOUND);

    char buffer[64];
    ULONG length = 0;
    UNICODE_STRING name = Describe(u"Name");
    KEY_WRITE_TIME_INFORMATION time{};
    const std::pair<const char*, NTSTATUS> results[] = {
        {"set", SetValue(other, u"V", REG_SZ, "x")},
        {"delete value", DeleteValue(other, u"V")},
        {"query value", QueryValue(other, u"V").status},
        {"enumerate values",
         NtEnumerateValueKey(other, 0, KeyValueBasicInformation, buffer, sizeof(buffer), &length)},
        {"enumerate",
         NtEnumerateKey(other, 0, KeyBasicInformation, buffer, sizeof(buffer), &length)},
        {"query", NtQueryKey(other, KeyFullInformation, buffer, sizeof(buffer), &length)},
        {"rename", NtRenameKey(other, &name)},
        {"flush", NtFlushKey(other)},
        {"set time", NtSetInformationKey(other, KeyWriteTimeInformation, &time, sizeof(time))},
        {"create below", CreateKeyOf(u"X", {.root = other}).status},
        {"open", OpenKeyOf(u"", {.root = other}).status},
    };
    for (const auto& [operation, status] : results) {
        EXPECT_EQ(status, STATUS_KEY_DELETED) << operation;
    }
    EXPECT_EQ(NtDeleteKey(other), STATUS_SUCCESS);

    // The name is free again, for a key of its own.
    EXPECT_EQ(CreateKeyOf(u"Child", {.root = test}).disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(NtFlushKey(other), STATUS_KEY_DELETED);
    child.Close();
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

TEST_F(RegistryKeysTest, PermanentKeysStay) {
    for (const auto* name : {u"\\Registry", u"\\Registry\\Machine", u"\\Registry\\User"}) {
        EXPECT_EQ(NtDeleteKey(OpenKeyOf(name).key), STATUS_CANNOT_DELETE);
    }
}

TEST_F(RegistryKeysTest, EveryOperationNeedsItsRightInTheHandle) {
    char buffer[64];
    ULONG length = 0;
    UNICODE_STRING name = Describe(u"Test");
    KEY_WRITE_TIME_INFORMATION time{};
    const struct {
        const char* operation;
        ACCESS_MASK needed;
        std::function<NTSTATUS(HANDLE)> call;
    } cases[] = {
        {"set", KEY_SET_VALUE, [](HANDLE key) { return SetValue(key, u"V", REG_SZ, "x"); }},
        {"query value", KEY_QUERY_VALUE, [](HANDLE key) { return QueryValue(key, u"V").status; }},
        {"enumerate values", KEY_QUERY_VALUE,
         [&](HANDLE key) {
             return NtEnumerateValueKey(key, 0, KeyValueBasicInformation, buffer, sizeof(buffer),
                                        &length);
         }},
        {"query", KEY_QUERY_VALUE,
         [&](HANDLE key) {
             return NtQueryKey(key, KeyBasicInformation, buffer, sizeof(buffer), &length);
         }},
        {"name", 0,
         [&](HANDLE key) {
             return NtQueryKey(key, KeyNameInformation, buffer, sizeof(buffer), &length);
         }},
        {"create below", 0, [](HANDLE key) { return CreateKeyOf(u"X", {.root = key}).status; }},
        {"enumerate", KEY_ENUMERATE_SUB_KEYS,
         [&](HANDLE key) {
             return NtEnumerateKey(key, 0, KeyBasicInformation, buffer, sizeof(buffer), &length);
         }},
        {"set time", KEY_SET_VALUE,
         [&](HANDLE key) {
             return NtSetInformationKey(key, KeyWriteTimeInformation, &time, sizeof(time));
         }},
        {"flush", 0, [](HANDLE key) { return NtFlushKey(key); }},
        {"rename", KEY_WRITE, [&](HANDLE key) { return NtRenameKey(key, &name); }},
        {"delete value", KEY_SET_VALUE, [](HANDLE key) { return DeleteValue(key, u"V"); }},
        {"delete", DELETE_ACCESS,
         [](HANDLE key) {
             NtDeleteKey(OpenKeyOf(u"X", {.root = key}).key);
             return NtDeleteKey(key);
         }},
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

TEST_F(RegistryKeysTest, GrantedAccess) {
    MakeKey(kTestKey);
    const struct {
        ACCESS_MASK desired, granted;
    } cases[] = {
        {0, 0},
        {GENERIC_READ, KEY_READ},
        {GENERIC_WRITE | KEY_WOW64_32KEY, KEY_WRITE},
        {KEY_WOW64_64KEY | KEY_SET_VALUE, KEY_SET_VALUE},
        {MAXIMUM_ALLOWED, KEY_ALL_ACCESS},
    };
    for (const auto& c : cases) {
        const KeyHandle key = OpenKeyOf(kTestKey, {.access = c.desired}).key;
        void* body = nullptr;
        ACCESS_MASK granted = ~0U;
        ASSERT_EQ(ReferenceHandle(key, 0, &kKeyType, UserMode, &body, &granted), STATUS_SUCCESS);
        DereferenceObject(body);
        EXPECT_EQ(granted & KEY_ALL_ACCESS, c.granted) << std::hex << c.desired;
    }
}

TEST_F(RegistryKeysTest, BadArgumentsGiveAStatusAndMakeNothing) {
    UNICODE_STRING name = Describe(u"\\Registry\\Machine\\New");
    UNICODE_STRING badName{8, 8, static_cast<PWSTR>(kBadAddress)};
    UNICODE_STRING oddName = name;
    oddName.Length -= 1;
    const OBJECT_ATTRIBUTES good{sizeof(OBJECT_ATTRIBUTES), nullptr, &name, 0, nullptr, nullptr};
    HANDLE handle = nullptr;
    const struct {
        const char* what;
        NTSTATUS status;
        std::function<void(OBJECT_ATTRIBUTES&, PHANDLE&, POBJECT_ATTRIBUTES&, ULONG&)> spoil;
    } cases[] = {
        {"handle", STATUS_ACCESS_VIOLATION,
         [](auto&, PHANDLE& place, auto&, auto&) { place = static_cast<PHANDLE>(kBadAddress); }},
        {"attributes", STATUS_ACCESS_VIOLATION,
         [](auto&, auto&, POBJECT_ATTRIBUTES& given, auto&) {
             given = static_cast<POBJECT_ATTRIBUTES>(kBadAddress);
         }},
        {"length", STATUS_INVALID_PARAMETER,
         [](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) { a.Length = 40; }},
        {"flags", STATUS_INVALID_PARAMETER,
         [](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) { a.Attributes = 0x10000; }},
        {"options", STATUS_INVALID_PARAMETER,
         [](auto&, auto&, auto&, ULONG& options) { options = 0x100; }},
        {"name", STATUS_ACCESS_VIOLATION,
         [](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) {
             a.ObjectName = static_cast<PUNICODE_STRING>(kBadAddress);
         }},
        {"name buffer", STATUS_ACCESS_VIOLATION,
         [&](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) { a.ObjectName = &badName; }},
        {"odd name", STATUS_OBJECT_NAME_INVALID,
         [&](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) { a.ObjectName = &oddName; }},
        {"root", STATUS_INVALID_HANDLE,
         [](OBJECT_ATTRIBUTES& a, auto&, auto&, auto&) {
             static UNICODE_STRING relative = Describe(u"New");
             a.ObjectName = &relative;
             a.RootDirectory = reinterpret_cast<HANDLE>(0x80000050);
         }},
    };
    for (const auto& c : cases) {
        OBJECT_ATTRIBUTES attributes = good;
        PHANDLE place = &handle;
        POBJECT_ATTRIBUTES given = &attributes;
        ULONG options = 0;
        c.spoil(attributes, place, given, options);
        EXPECT_EQ(NtCreateKey(place, KEY_READ, given, 0, nullptr, options, nullptr), c.status)
            << c.what;
    }
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

TEST_F(RegistryKeysTest, PlannedFaultsComeBeforeAnyEffect) {
    const KeyHandle key = MakeKey(kTestKey);
    UNICODE_STRING name = Describe(u"V");
    const struct {
        const char* routine;
        std::function<NTSTATUS()> call;
    } cases[] = {
        {"NtCreateKey", [&] { return CreateKeyOf(u"New", {.root = key}).status; }},
        {"NtOpenKeyEx", [&] { return OpenKeyOf(u"", {.root = key}).status; }},
        {"NtSetValueKey", [&] { return SetValue(key, u"V", REG_SZ, "x"); }},
        {"ZwSetValueKey", [&] { return ZwSetValueKey(key, &name, 0, REG_SZ, &name, 4); }},
        {"NtDeleteKey", [&] { return NtDeleteKey(key); }},
    };
    for (const auto& c : cases) {
        const FaultPlan plan({.routine = c.routine, .status = STATUS_NO_MEMORY});
        EXPECT_EQ(c.call(), STATUS_NO_MEMORY) << c.routine;
        EXPECT_TRUE(plan.Fired()) << c.routine;
    }
    EXPECT_TRUE(SubkeyNames(key).empty());
    EXPECT_TRUE(ValueNames(key).empty());
}

}  // namespace
}  // namespace platform
