// The security of keys: what new keys inherit, what is set and queried, who may open what, and what
// drivers see of it.
#include "kernel/bugcheck_matchers.h"
#include "kernel/registry_fixture.h"

#include "platform/kernel/key_object.h"
#include "platform/kernel/security_descriptor.h"
#include "platform/kernel/token_identity.h"

#include <algorithm>

namespace platform {
namespace {

using enum Token::Account;

/// None for no text.
SecurityDescriptor Parsed(std::u16string_view sddl) {
    SecurityDescriptor descriptor;
    if (sddl.empty()) return descriptor;
    EXPECT_EQ(ParseSddl(sddl, descriptor), STATUS_SUCCESS) << ToUtf8(sddl);
    return descriptor;
}

constexpr SECURITY_INFORMATION kAll = OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                                      DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION;
constexpr ACCESS_MASK kEverything = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY;

class KeySecurityTest : public RegistryTest {
protected:
    /// A process of its own for each account.
    ObjectRef<Process> Start(Token::Account account) {
        return machine_.StartProcess({.imagePath = u"\\x.exe", .token = {account}});
    }
    static Opened Create(std::u16string_view name, SecurityDescriptor security,
                         ACCESS_MASK access = KEY_ALL_ACCESS) {
        UNICODE_STRING text = Describe(name);
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &text, 0, nullptr,
                                   security.Empty() ? nullptr : security.bytes.data());
        HANDLE handle = nullptr;
        const NTSTATUS status = NtCreateKey(&handle, access, &attributes, 0, nullptr, 0, nullptr);
        return {status, KeyHandle(handle), 0};
    }
    static NTSTATUS Set(HANDLE key, SECURITY_INFORMATION what, std::u16string_view sddl) {
        SecurityDescriptor descriptor = Parsed(sddl);
        return NtSetSecurityObject(key, what, descriptor.bytes.data());
    }
    static std::vector<std::byte> Query(HANDLE key, SECURITY_INFORMATION what) {
        std::vector<std::byte> bytes(4096);
        ULONG needed = 0;
        EXPECT_EQ(NtQuerySecurityObject(key, what, bytes.data(), 4096, &needed), STATUS_SUCCESS);
        bytes.resize(needed);
        return bytes;
    }
    static ObjectRef<KeyObject> ObjectOf(HANDLE handle) {
        ObjectRef<KeyObject> object;
        EXPECT_EQ(ReferenceHandle(handle, 0, kKeyType, KernelMode, object), STATUS_SUCCESS);
        return object;
    }
};

TEST_F(KeySecurityTest, NewKeysInheritFromTheirParentsAndCreators) {
    const struct {
        const char16_t* parent;
        const char16_t* given;
        Token::Account creator;
        const char16_t* child;
    } cases[] = {
        // What is not for containers below stays; the rest says that it was inherited.
        {u"O:SYG:SYD:P(A;CI;KA;;;SY)(A;;KA;;;WD)(D;CINP;0x2;;;BU)(A;CIIO;KR;;;WD)(A;OI;KR;;;AU)",
         u"", kLocalSystem,
         u"O:BAG:SYD:AI(A;CIID;KA;;;SY)(D;ID;0x2;;;BU)(A;CIID;KR;;;WD)(A;OIIOID;KR;;;AU)"},
        // The creator's name and the type's rights, for the key itself only.
        {u"O:SYG:SYD:(A;CIIO;GR;;;CO)(A;CINP;GA;;;CG)(A;CI;KA;;;BA)S:(AU;CISA;KA;;;WD)", u"",
         kAdministrator,
         u"O:BAG:S-1-5-21-1000-1000-1000-513D:AI(A;ID;KR;;;BA)(A;CIIOID;GR;;;CO)"
         u"(A;ID;KA;;;S-1-5-21-1000-1000-1000-513)(A;CIID;KA;;;BA)S:AI(AU;CISAID;KA;;;WD)"},
        // Nothing to inherit: everything for the owner and the system.
        {u"O:SYG:SYD:(A;;KA;;;WD)", u"", kUser,
         u"O:S-1-5-21-1000-1000-1000-1001G:S-1-5-21-1000-1000-1000-513"
         u"D:(A;;KA;;;S-1-5-21-1000-1000-1000-1001)(A;;KA;;;SY)"},
        // What is asked for goes before.
        {u"O:SYG:SYD:(A;CI;KA;;;BA)", u"O:SYG:BUD:P(A;CI;GA;;;SY)(A;CIIO;GA;;;WD)S:(AU;SA;KA;;;WD)",
         kAdministrator, u"O:SYG:BUD:P(A;CI;KA;;;SY)(A;CIIO;GA;;;WD)S:(AU;SA;KA;;;WD)"},
        {u"O:SYG:SYD:(A;CI;KA;;;BA)", u"D:NO_ACCESS_CONTROL", kLocalSystem,
         u"O:BAG:SYD:NO_ACCESS_CONTROL"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(ToUtf8(row.parent));
        constexpr std::u16string_view kParent = u"\\Registry\\Machine\\Parent";
        constexpr std::u16string_view kChild = u"\\Registry\\Machine\\Parent\\Child";
        const KeyHandle parent = Create(kParent, Parsed(row.parent)).key;
        const ObjectRef<Process> creator = Start(row.creator);
        {
            const ThreadScope inCreator(*creator);
            EXPECT_EQ(Create(kChild, Parsed(row.given)).status, STATUS_SUCCESS);
        }
        const Opened child = OpenKeyOf(kChild, {.access = MAXIMUM_ALLOWED | DELETE_ACCESS});
        ASSERT_EQ(child.status, STATUS_SUCCESS);
        void* descriptor = nullptr;
        BOOLEAN allocated = FALSE;
        ASSERT_EQ(ObGetObjectSecurity(ObjectOf(child.key).get(), &descriptor, &allocated),
                  STATUS_SUCCESS);
        const SecurityDescriptor expected = Parsed(row.child);
        EXPECT_EQ(std::memcmp(descriptor, expected.bytes.data(), expected.bytes.size()), 0);
        ObReleaseObjectSecurity(descriptor, allocated);
        NtDeleteKey(child.key);
        NtDeleteKey(parent);
        machine_.ExitProcess(*creator);
    }
}

TEST_F(KeySecurityTest, PartsAreSetAndQueriedByThemselves) {
    constexpr const char16_t* kFirst = u"O:BAG:SYD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)S:(AU;SA;KA;;;WD)";
    const struct {
        SECURITY_INFORMATION what;
        const char16_t* set;
        const char16_t* then;   ///< the whole descriptor
        const char16_t* query;  ///< of `what`
    } cases[] = {
        {OWNER_SECURITY_INFORMATION, u"O:SYG:BUD:",
         u"O:SYG:SYD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)S:(AU;SA;KA;;;WD)", u"O:SY"},
        {GROUP_SECURITY_INFORMATION, u"G:BU",
         u"O:BAG:BUD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)S:(AU;SA;KA;;;WD)", u"G:BU"},
        // The protection goes with the list, generic rights become the type's.
        {DACL_SECURITY_INFORMATION, u"O:SYD:(A;;GA;;;BA)",
         u"O:BAG:SYD:(A;;KA;;;BA)S:(AU;SA;KA;;;WD)", u"D:(A;;KA;;;BA)"},
        {DACL_SECURITY_INFORMATION, u"D:ARAI(A;;KA;;;BA)",
         u"O:BAG:SYD:AI(A;;KA;;;BA)S:(AU;SA;KA;;;WD)", u"D:AI(A;;KA;;;BA)"},
        {DACL_SECURITY_INFORMATION, u"D:NO_ACCESS_CONTROL",
         u"O:BAG:SYD:NO_ACCESS_CONTROLS:(AU;SA;KA;;;WD)", u"D:NO_ACCESS_CONTROL"},
        {SACL_SECURITY_INFORMATION, u"O:SY", u"O:BAG:SYD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)", u"G:SY"},
        {OWNER_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION, u"O:SYS:P(AU;FA;KR;;;BU)",
         u"O:SYG:SYD:P(A;CI;KA;;;SY)(A;CI;KA;;;BA)S:P(AU;FA;KR;;;BU)", u"O:SYS:P(AU;FA;KR;;;BU)"},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(ToUtf8(row.set));
        const KeyHandle key = Create(kTestKey, Parsed(kFirst), kEverything).key;
        EXPECT_EQ(Set(key, row.what, row.set), STATUS_SUCCESS);
        EXPECT_EQ(Query(key, kAll), Parsed(row.then).bytes);
        if (*row.query != u'G' || row.what == GROUP_SECURITY_INFORMATION) {
            EXPECT_EQ(Query(key, row.what), Parsed(row.query).bytes);
        }
        NtDeleteKey(key);
    }
    const KeyHandle key = MakeKey(kTestKey, {.access = kEverything});
    const auto whole = static_cast<ULONG>(Query(key, kAll).size());
    for (const ULONG room : {0u, whole - 1}) {
        std::vector<std::byte> bytes(whole);
        ULONG needed = 0;
        EXPECT_EQ(NtQuerySecurityObject(key, kAll, bytes.data(), room, &needed),
                  STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(needed, whole);
        EXPECT_EQ(bytes, std::vector<std::byte>(whole));
    }
}

TEST_F(KeySecurityTest, DescriptorsThatCannotBeAreRefused) {
    const KeyHandle key = MakeKey(kTestKey, {.access = kEverything});
    const std::vector<std::byte> before = Query(key, kAll);
    const SecurityDescriptor good = Parsed(u"O:BAG:SYD:(A;;KA;;;SY)S:(AU;SA;KA;;;WD)");
    SECURITY_DESCRIPTOR_RELATIVE header;
    std::memcpy(&header, good.bytes.data(), sizeof(header));
    const struct {
        const char* what;
        std::size_t offset;
        int value;
        NTSTATUS status;
    } cases[] = {
        {"revision", 0, 2, STATUS_UNKNOWN_REVISION},
        {"no owner", 4, 0, STATUS_INVALID_SECURITY_DESCR},
        {"no group", 8, 0, STATUS_INVALID_SECURITY_DESCR},
        {"revision of a SID", header.Owner, 2, STATUS_INVALID_SID},
        {"too many sub-authorities", header.Group + 1, 16, STATUS_INVALID_SID},
        {"revision of a list", header.Dacl, 5, STATUS_INVALID_ACL},
        {"list shorter than its header", header.Dacl + 2, 7, STATUS_INVALID_ACL},
        {"more entries than fit", header.Dacl + 4, 2, STATUS_INVALID_ACL},
        {"entry that ends behind the list", header.Dacl + 10, 24, STATUS_INVALID_ACL},
        {"entry of no size", header.Dacl + 10, 0, STATUS_INVALID_ACL},
        {"entry of odd size", header.Sacl + 10, 19, STATUS_INVALID_ACL},
        {"SID longer than its entry", header.Sacl + 17, 3, STATUS_INVALID_ACL},
    };
    for (const auto& row : cases) {
        SecurityDescriptor bad = good;
        bad.bytes[row.offset] = static_cast<std::byte>(row.value);
        EXPECT_EQ(NtSetSecurityObject(key, kAll, bad.bytes.data()), row.status) << row.what;
    }
    EXPECT_EQ(NtSetSecurityObject(key, kAll, reinterpret_cast<void*>(8)), STATUS_ACCESS_VIOLATION);
    EXPECT_EQ(Create(u"\\Registry\\Machine\\Bad", {std::vector<std::byte>(64)}).status,
              STATUS_UNKNOWN_REVISION);
    EXPECT_EQ(Query(key, kAll), before);
    // Cut anywhere, a descriptor that must stay within its bytes does not.
    for (std::size_t size = 0; size < good.bytes.size(); ++size) {
        std::vector<std::byte> cut(good.bytes.begin(),
                                   good.bytes.begin() + static_cast<std::ptrdiff_t>(size));
        DescriptorParts parts;
        EXPECT_FALSE(NT_SUCCESS(ReadDescriptor(cut, parts))) << size;
    }
}

TEST_F(KeySecurityTest, ListsDecideWhoOpensAndCreates) {
    const struct {
        const char16_t* sddl;
        Token::Account account;
        ACCESS_MASK desired;
        NTSTATUS open, create;
    } cases[] = {
        {u"", kAdministrator, KEY_ALL_ACCESS, STATUS_SUCCESS, STATUS_SUCCESS},
        {u"", kUser, KEY_READ, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {u"", kUser, KEY_SET_VALUE, STATUS_ACCESS_DENIED, STATUS_ACCESS_DENIED},
        {u"", kRestricted, GENERIC_READ, STATUS_SUCCESS, STATUS_ACCESS_DENIED},
        {u"O:SYG:SYD:(A;;KR;;;WD)", kAdministrator, KEY_WRITE, STATUS_ACCESS_DENIED,
         STATUS_ACCESS_DENIED},
        {u"O:SYG:SYD:(D;;0x1;;;BU)(A;;KA;;;WD)", kUser, KEY_READ, STATUS_ACCESS_DENIED,
         STATUS_SUCCESS},
        {u"O:SYG:SYD:(A;;0x4;;;BU)", kUser, ACCESS_SYSTEM_SECURITY, STATUS_ACCESS_DENIED,
         STATUS_PRIVILEGE_NOT_HELD},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(&row - cases);
        const KeyHandle made = Create(kTestKey, Parsed(row.sddl)).key;
        const ObjectRef<Process> process = Start(row.account);
        {
            const ThreadScope inProcess(*process);
            EXPECT_EQ(OpenKeyOf(kTestKey, {.access = row.desired}).status, row.open);
            EXPECT_EQ(
                CreateKeyOf(u"\\Registry\\Machine\\Test\\Sub", {.access = row.desired}).status,
                row.create);
            // Kernel code is held to nothing, unless it asks for that.
            UNICODE_STRING name = Describe(kTestKey);
            for (const ULONG force : {0U, OBJ_FORCE_ACCESS_CHECK}) {
                OBJECT_ATTRIBUTES attributes;
                InitializeObjectAttributes(&attributes, &name, OBJ_KERNEL_HANDLE | force, nullptr,
                                           nullptr);
                HANDLE handle = nullptr;
                EXPECT_EQ(ZwOpenKey(&handle, row.desired, &attributes),
                          force != 0 ? row.open : STATUS_SUCCESS);
                if (handle != nullptr) ZwClose(handle);
            }
        }
        machine_.ExitProcess(*process);
        const KeyHandle sub = OpenKeyOf(u"\\Registry\\Machine\\Test\\Sub", {.access = 0}).key;
        if (sub != nullptr) ZwDeleteKey(sub);
        ZwDeleteKey(made);
    }
    const KeyHandle key = MakeKey(kTestKey, {.access = KEY_ALL_ACCESS});
    EXPECT_EQ(Set(key, DACL_SECURITY_INFORMATION, u"D:(A;;KA;;;WD)"), STATUS_SUCCESS);
    const ObjectRef<Process> user = Start(kUser);
    const ThreadScope inUser(*user);
    const KeyHandle own = OpenKeyOf(kTestKey).key;
    EXPECT_EQ(Set(own, OWNER_SECURITY_INFORMATION, u"O:SY"), STATUS_INVALID_OWNER);
    EXPECT_EQ(Set(own, OWNER_SECURITY_INFORMATION, u"O:S-1-5-21-1000-1000-1000-1001"),
              STATUS_SUCCESS);
}

TEST_F(KeySecurityTest, DriversLookAtDescriptorsInPlace) {
    SecurityDescriptor relative = Parsed(u"O:BAG:SYD:(A;;KA;;;SY)(A;CI;KR;;;WD)");
    DescriptorParts parts;
    ASSERT_EQ(ReadDescriptor(relative.bytes, parts), STATUS_SUCCESS);
    SECURITY_DESCRIPTOR absolute{1,
                                 0,
                                 static_cast<USHORT>(parts.control & ~SE_SELF_RELATIVE),
                                 parts.owner.data(),
                                 parts.group.data(),
                                 nullptr,
                                 reinterpret_cast<PACL>(parts.dacl.data())};
    void* const descriptors[] = {relative.bytes.data(), &absolute};
    for (void* descriptor : descriptors) {
        PSID owner = nullptr;
        PSID group = nullptr;
        PACL dacl = nullptr;
        BOOLEAN present = FALSE;
        BOOLEAN defaulted = TRUE;
        EXPECT_EQ(RtlGetOwnerSecurityDescriptor(descriptor, &owner, &defaulted), STATUS_SUCCESS);
        EXPECT_EQ(RtlGetGroupSecurityDescriptor(descriptor, &group, &defaulted), STATUS_SUCCESS);
        EXPECT_EQ(defaulted, FALSE);
        EXPECT_EQ(RtlLengthSid(owner), 16U);
        EXPECT_TRUE(RtlEqualSid(owner, parts.owner.data()));
        EXPECT_FALSE(RtlEqualSid(owner, group));
        EXPECT_EQ(RtlGetDaclSecurityDescriptor(descriptor, &present, &dacl, &defaulted),
                  STATUS_SUCCESS);
        EXPECT_TRUE(present);
        void* ace = nullptr;
        EXPECT_EQ(RtlGetAce(dacl, 1, &ace), STATUS_SUCCESS);
        EXPECT_EQ(static_cast<ACCESS_ALLOWED_ACE*>(ace)->Mask, KEY_READ);
        EXPECT_EQ(RtlGetAce(dacl, 2, &ace), STATUS_INVALID_PARAMETER);
        PACL untouched = reinterpret_cast<PACL>(8);
        EXPECT_EQ(RtlGetSaclSecurityDescriptor(descriptor, &present, &untouched, &defaulted),
                  STATUS_SUCCESS);
        EXPECT_FALSE(present);
        EXPECT_EQ(untouched, reinterpret_cast<PACL>(8));
    }
    absolute.Revision = 2;
    PSID owner = nullptr;
    BOOLEAN defaulted = FALSE;
    EXPECT_EQ(RtlGetOwnerSecurityDescriptor(&absolute, &owner, &defaulted),
              STATUS_UNKNOWN_REVISION);
}

TEST_F(KeySecurityTest, CapturedDescriptorsMustBeGivenBack) {
    KeyHandle key = MakeKey(kTestKey);
    const ObjectRef<KeyObject> object = ObjectOf(key);
    void* descriptor = nullptr;
    BOOLEAN allocated = FALSE;
    {
        const FaultPlan plan({.routine = "ObGetObjectSecurity"});
        EXPECT_EQ(ObGetObjectSecurity(object.get(), &descriptor, &allocated),
                  STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(descriptor, nullptr);
    }
    ASSERT_EQ(ObGetObjectSecurity(object.get(), &descriptor, &allocated), STATUS_SUCCESS);
    EXPECT_EQ(allocated, TRUE);
    const std::vector<std::string> leaks = machine_.FindLeaks().lines;
    EXPECT_EQ(std::count(leaks.begin(), leaks.end(), "pool tag ObSd: 1 blocks"), 1);
    EXPECT_EQ(RuleBrokenBy([&] { ObReleaseObjectSecurity(descriptor, FALSE); }),
              (BrokenRule{Rule::kCallbackContract, descriptor, MakeTag("ObSd")}));
    ObReleaseObjectSecurity(descriptor, allocated);
    ObReleaseObjectSecurity(nullptr, FALSE);
    NtDeleteKey(key);
    EXPECT_EQ(ObGetObjectSecurity(object.get(), &descriptor, &allocated), STATUS_KEY_DELETED);
}

}  // namespace
}  // namespace platform
