#include "kernel/registry_fixture.h"

#include <functional>

namespace platform {
namespace {

class RegistryValuesTest : public RegistryTest {
protected:
    KeyHandle key_ = MakeKey(kTestKey);
};

TEST_F(RegistryValuesTest, ValuesComeInOrderOfCreationAndKeepTheirPlace) {
    for (const auto* name : {u"zeta", u"Alpha", u"", u"middle"}) {
        EXPECT_EQ(SetValue(key_, name, REG_SZ, "old"), STATUS_SUCCESS);
    }
    EXPECT_EQ(SetValue(key_, u"ALPHA", REG_DWORD, "new!"), STATUS_SUCCESS);
    EXPECT_EQ(DeleteValue(key_, u"Zeta"), STATUS_SUCCESS);
    EXPECT_EQ(SetValue(key_, u"zeta", REG_NONE, ""), STATUS_SUCCESS);

    EXPECT_EQ(ValueNames(key_), (std::vector<std::u16string>{u"Alpha", u"", u"middle", u"zeta"}));
    const ValueData alpha = QueryValue(key_, u"alpha");
    EXPECT_EQ(alpha.type, REG_DWORD);
    EXPECT_EQ(alpha.data, "new!");
    EXPECT_EQ(QueryValue(key_, u"").data, "old");
    EXPECT_EQ(QueryValue(key_, u"ZETA").data, "");
    EXPECT_EQ(QueryValue(key_, u"zet").status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(DeleteValue(key_, u"zet"), STATUS_OBJECT_NAME_NOT_FOUND);
}

TEST_F(RegistryValuesTest, NamesAndTypesHaveTheirLimits) {
    const std::u16string longest(16383, u'n');
    const struct {
        std::u16string name;
        ULONG type;
        NTSTATUS status;
        std::u16string asFound;
    } cases[] = {
        {longest, REG_SZ, STATUS_SUCCESS, longest},
        {longest + u"n", REG_SZ, STATUS_INVALID_PARAMETER, u""},
        {std::u16string(u"nul\0\0", 5), REG_SZ, STATUS_SUCCESS, u"nul"},
        {u"back\\slash", 0x1234, STATUS_SUCCESS, u"back\\slash"},
        {u"property", 0xFFFF0007, STATUS_SUCCESS, u"PROPERTY"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SetValue(key_, c.name, c.type, "data"), c.status) << c.name.size();
        if (NT_SUCCESS(c.status)) {
            EXPECT_EQ(QueryValue(key_, c.asFound).type, c.type);
        }
    }
}

TEST_F(RegistryValuesTest, BadAddressesChangeNothing) {
    ASSERT_EQ(SetValue(key_, u"V", REG_SZ, "kept"), STATUS_SUCCESS);
    UNICODE_STRING name = Describe(u"V");
    void* const bad = reinterpret_cast<void*>(0x10);
    auto* const badLength = static_cast<PULONG>(bad);
    ULONG length = 0;
    char buffer[64];
    EXPECT_EQ(NtSetValueKey(key_, &name, 0, REG_SZ, bad, 4), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtSetValueKey(key_, &name, 0, REG_SZ, nullptr, 4), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtQueryValueKey(key_, &name, KeyValuePartialInformation, bad, 64, &length),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(NtQueryValueKey(key_, &name, KeyValuePartialInformation, buffer, 64, badLength),
              STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(QueryValue(key_, u"V").data, "kept");
}

TEST_F(RegistryValuesTest, WritesMoveTheLastWriteTimeUnlessItIsSet) {
    const auto lastWrite = [&] {
        KEY_BASIC_INFORMATION answer{};
        ULONG length = 0;
        NtQueryKey(key_, KeyBasicInformation, &answer, sizeof(answer), &length);
        return answer.LastWriteTime.QuadPart;
    };
    const auto set = [&](LONGLONG time) {
        KEY_WRITE_TIME_INFORMATION information{};
        information.LastWriteTime.QuadPart = time;
        return NtSetInformationKey(key_, KeyWriteTimeInformation, &information,
                                   sizeof(information));
    };
    EXPECT_EQ(NtSetInformationKey(key_, KeyWriteTimeInformation, &key_, 4),
              STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(NtSetInformationKey(key_, KeySetDebugInformation, &key_, 4),
              STATUS_INVALID_INFO_CLASS);
    const std::pair<const char*, std::function<void()>> writes[] = {
        {"set", [&] { SetValue(key_, u"V", REG_SZ, "x"); }},
        {"delete", [&] { DeleteValue(key_, u"V"); }},
        {"create below", [&] { MakeKey(u"Below", {.root = key_}); }},
        {"delete below", [&] { NtDeleteKey(OpenKeyOf(u"Below", {.root = key_}).key); }},
    };
    for (const auto& [what, write] : writes) {
        ASSERT_EQ(set(1234), STATUS_SUCCESS);
        EXPECT_EQ(lastWrite(), 1234);
        write();
        EXPECT_NE(lastWrite(), 1234) << what;
    }
}

}  // namespace
}  // namespace platform
