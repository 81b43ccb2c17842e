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

TEST_F(RegistryValuesTest, WritesMoveTheLastWriteTimeUnlessItIsSet) {
    const auto lastWrite = [&] {
        KEY_BASIC_INFORMATION answer{};
        ULONG length = 0;
        NtQueryKey(key_, KeyBasicInformation, &answer, sizeof(answer), &length);
        return answer.LastWriteTime.QuadPart;
    };
    const std::function<void()> writes[] = {
        [&] { SetValue(key_, u"V", REG_SZ, "x"); },
        [&] { DeleteValue(key_, u"V"); },
        [&] { MakeKey(u"Below", {.root = key_}); },
        [&] { NtDeleteKey(OpenKeyOf(u"Below", {.root = key_}).key); },
    };
    for (const auto& write : writes) {
        KEY_WRITE_TIME_INFORMATION time{};
        time.LastWriteTime.QuadPart = 1234;
        ASSERT_EQ(NtSetInformationKey(key_, KeyWriteTimeInformation, &time, sizeof(time)),
                  STATUS_SUCCESS);
        EXPECT_EQ(lastWrite(), 1234);
        write();
        EXPECT_NE(lastWrite(), 1234) << "write " << &write - writes;
    }
}

}  // namespace
}  // namespace platform
