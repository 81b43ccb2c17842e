#include "kernel/registry_fixture.h"

namespace platform {
namespace {

class RegistryLinksTest : public RegistryTest {
protected:
    /// \Registry\Machine\Test with the keys Target\Inner, and links by MakeLink.
    RegistryLinksTest() {
        target_ = MakeKey(u"Target", {.root = test_});
        MakeKey(u"Inner", {.root = target_});
    }

    KeyHandle MakeLink(std::u16string_view name, std::u16string_view to) {
        KeyHandle link = MakeKey(name, {.root = test_,
                                        .attributes = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK,
                                        .options = REG_OPTION_CREATE_LINK});
        EXPECT_EQ(SetTarget(link, to), STATUS_SUCCESS);
        return link;
    }
    static NTSTATUS SetTarget(HANDLE link, std::u16string_view to) {
        return SetValue(link, u"SymbolicLinkValue", REG_LINK,
                        {reinterpret_cast<const char*>(to.data()), to.size() * 2});
    }

    KeyHandle test_ = MakeKey(kTestKey);
    KeyHandle target_;
};

TEST_F(RegistryLinksTest, LinksLeadToTheirTargets) {
    const KeyHandle link = MakeLink(u"Link", u"\\registry\\machine\\test\\TARGET");
    MakeLink(u"Second", u"\\Registry\\Machine\\Test\\Link\\");
    MakeLink(u"Machine", u"\\Registry\\Machine");
    MakeLink(u"Missing", u"\\Registry\\Machine\\Test\\None");
    MakeLink(u"Outside", u"\\Device\\Null");
    MakeLink(u"Round", u"\\Registry\\Machine\\Test\\Trip");
    MakeLink(u"Trip", u"\\Registry\\Machine\\Test\\Round\\Below");
    MakeKey(u"Unset", {.root = test_, .options = REG_OPTION_CREATE_LINK});

    constexpr ULONG kAtLink = OBJ_CASE_INSENSITIVE | OBJ_OPENLINK;
    const struct {
        std::u16string_view name;
        ULONG attributes;
        ULONG options;
        NTSTATUS status;
        std::u16string_view fullName;
    } cases[] = {
        {u"Link", 0, 0, STATUS_SUCCESS, u"\\Target"},
        {u"Link", kAtLink, 0, STATUS_SUCCESS, u"\\Link"},
        {u"Link\\", kAtLink, 0, STATUS_SUCCESS, u"\\Link"},
        {u"Link", 0, REG_OPTION_OPEN_LINK, STATUS_SUCCESS, u"\\Link"},
        {u"Link\\Inner", kAtLink, 0, STATUS_SUCCESS, u"\\Target\\Inner"},
        {u"Second", 0, 0, STATUS_SUCCESS, u"\\Target"},
        {u"Second\\Inner", 0, 0, STATUS_SUCCESS, u"\\Target\\Inner"},
        {u"Machine\\Test\\Second\\Inner", 0, 0, STATUS_SUCCESS, u"\\Target\\Inner"},
        {u"Machine\\Test\\Second", kAtLink, 0, STATUS_SUCCESS, u"\\Second"},
        {u"Missing", 0, 0, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"Missing", kAtLink, 0, STATUS_SUCCESS, u"\\Missing"},
        {u"Missing\\Below", 0, 0, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"Outside", 0, 0, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"Round", 0, 0, STATUS_OBJECT_NAME_NOT_FOUND, u""},
        {u"Unset", 0, 0, STATUS_OBJECT_NAME_NOT_FOUND, u""},
    };
    for (const auto& c : cases) {
        const Opened opened =
            OpenKeyOf(c.name, {.root = test_, .attributes = c.attributes, .options = c.options});
        EXPECT_EQ(opened.status, c.status) << ToUtf8(c.name);
        if (!NT_SUCCESS(c.status)) continue;
        EXPECT_EQ(FullName(opened.key), u"\\REGISTRY\\MACHINE\\Test" + std::u16string(c.fullName))
            << ToUtf8(c.name);
    }

    // A handle to the link itself: empty names stay, others go through.
    EXPECT_EQ(FullName(OpenKeyOf(u"", {.root = link}).key), u"\\REGISTRY\\MACHINE\\Test\\Link");
    EXPECT_EQ(FullName(OpenKeyOf(u"Inner", {.root = link}).key),
              u"\\REGISTRY\\MACHINE\\Test\\Target\\Inner");
}

TEST_F(RegistryLinksTest, CreatingThroughALinkCreatesAtItsTarget) {
    MakeLink(u"Link", u"\\Registry\\Machine\\Test\\Target");
    MakeLink(u"Ahead", u"\\Registry\\Machine\\Test\\Later");
    EXPECT_EQ(CreateKeyOf(u"Link", {.root = test_}).disposition, REG_OPENED_EXISTING_KEY);
    EXPECT_EQ(FullName(CreateKeyOf(u"Link\\New", {.root = test_}).key),
              u"\\REGISTRY\\MACHINE\\Test\\Target\\New");
    const Opened later = CreateKeyOf(u"Ahead", {.root = test_});
    EXPECT_EQ(later.disposition, REG_CREATED_NEW_KEY);
    EXPECT_EQ(FullName(later.key), u"\\REGISTRY\\MACHINE\\Test\\Later");
}

TEST_F(RegistryLinksTest, ALinkHoldsNothingButItsTarget) {
    const KeyHandle link = MakeLink(u"Link", u"\\Registry\\Machine\\Test\\Target");
    EXPECT_EQ(SetValue(link, u"Other", REG_SZ, "x"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(SetValue(link, u"SymbolicLinkValue", REG_SZ, "x"), STATUS_ACCESS_DENIED);
    EXPECT_EQ(SetTarget(link, u"\\Registry\\Machine"), STATUS_SUCCESS);
    EXPECT_EQ(FullName(OpenKeyOf(u"Link", {.root = test_}).key), u"\\REGISTRY\\MACHINE");

    // Deleting the link leaves the target alone.
    EXPECT_EQ(NtDeleteKey(link), STATUS_SUCCESS);
    EXPECT_EQ(OpenKeyOf(u"Link", {.root = test_}).status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(OpenKeyOf(u"Target\\Inner", {.root = test_}).status, STATUS_SUCCESS);
}

}  // namespace
}  // namespace platform
