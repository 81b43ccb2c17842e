#include "platform/kernel/security.h"

#include "platform/kernel/object.h"
#include "platform/kernel/process.h"
#include "platform/kernel/text.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>

namespace platform {
namespace {

constexpr GenericMapping kFileMapping = {FILE_GENERIC_READ, FILE_GENERIC_WRITE,
                                         FILE_GENERIC_EXECUTE, FILE_ALL_ACCESS};

std::string Hex(const std::vector<std::byte>& bytes) {
    std::ostringstream text;
    for (const std::byte byte : bytes) {
        text << std::hex << std::setw(2) << std::setfill('0') << std::to_integer<int>(byte);
    }
    return text.str();
}

TEST(Sddl, DescriptorsHaveTheDocumentedBytes) {
    const struct {
        const char16_t* text;
        const char* bytes;
    } cases[] = {
        // No list at all: revision, control 0x8000, four offsets of zero.
        {u"O:SYG:BA",
         "0100008014000000200000000000000000000000"
         "01010000000000051200000001020000000000052000000020020000"},
        // A protected list of one entry for everyone.
        {u"D:P(A;;GR;;;WD)",
         "0100049000000000000000000000000014000000"
         "02001c00010000000000140000000080010100000000000100000000"},
        // Denied, with flags and a number for rights; an empty audit list with its flag.
        {u"D:AI(D;OICI;0x1F;;;S-1-5-32-545)S:AR",
         "010014860000000000000000140000001c000000"
         "02000800000000000200200001000000010318001f000000"
         "01020000000000052000000021020000"},
        // A list that is present but null.
        {u"D:NO_ACCESS_CONTROL", "0100048000000000000000000000000000000000"},
    };
    for (const auto& row : cases) {
        SecurityDescriptor descriptor;
        ASSERT_EQ(ParseSddl(row.text, descriptor), STATUS_SUCCESS) << ToUtf8(row.text);
        EXPECT_EQ(Hex(descriptor.bytes), row.bytes) << ToUtf8(row.text);
    }
}

TEST(Sddl, EveryRightHasItsBits) {
    const std::pair<const char16_t*, ACCESS_MASK> cases[] = {
        {u"GA", 0x10000000},    {u"GX", 0x20000000}, {u"GW", 0x40000000},
        {u"GR", 0x80000000},    {u"RC", 0x00020000}, {u"SD", 0x00010000},
        {u"WD", 0x00040000},    {u"WO", 0x00080000}, {u"KA", 0x000F003F},
        {u"KR", 0x00020019},    {u"KW", 0x00020006}, {u"KX", 0x00020019},
        {u"FA", 0x001F01FF},    {u"FR", 0x00120089}, {u"FW", 0x00120116},
        {u"FX", 0x001200A0},    {u"0x12aB", 0x12AB}, {u"", 0},
        {u"GRGWGX", 0xE0000000}};
    for (const auto& [right, expected] : cases) {
        SecurityDescriptor descriptor;
        const std::u16string text = std::u16string(u"D:(A;;") + right + u";;;WD)";
        ASSERT_EQ(ParseSddl(text, descriptor), STATUS_SUCCESS) << ToUtf8(text);
        ACCESS_MASK mask = 0;
        std::memcpy(&mask, descriptor.bytes.data() + 20 + 8 + 4, sizeof(mask));
        EXPECT_EQ(mask, expected) << ToUtf8(text);
    }
}

TEST(Sddl, RefusesWhatItDoesNotKnow) {
    for (const char16_t* text : {u"",
                                 u"D",
                                 u"X:SY",
                                 u"O:",
                                 u"O:XX",
                                 u"O:S-1-5",
                                 u"O:S-1-5-99999999999",
                                 u"O:S-1-5-1-",
                                 u"O:SYO:SY",
                                 u"D:(A;;GA;;;SY)O:SY",
                                 u"D:Q(A;;GA;;;SY)",
                                 u"D:(A;;GA;;;SY",
                                 u"D:(A;;GA;;SY)",
                                 u"D:(A;;GA;;;)",
                                 u"D:(A;;GA;;;SY;)",
                                 u"D:(A;;ZZ;;;SY)",
                                 u"D:(A;;G;;;SY)",
                                 u"D:(A;XX;GA;;;SY)",
                                 u"D:(Z;;GA;;;SY)",
                                 u"D:(AU;;GA;;;SY)",
                                 u"S:(A;;GA;;;SY)",
                                 u"D:(A;;0x;;;SY)",
                                 u"D:(A;;0x123456789;;;SY)",
                                 u"D:(A;;GA;x;;SY)",
                                 u"D:(A;;GA;;;SY)x"}) {
        SecurityDescriptor descriptor;
        EXPECT_EQ(ParseSddl(text, descriptor), STATUS_INVALID_SECURITY_DESCR) << ToUtf8(text);
        EXPECT_TRUE(descriptor.Empty());
    }
}

TEST(AccessCheck, GrantsByTheList) {
    using enum Token::Account;
    constexpr const char16_t* kDevice =
        u"D:P(A;;GA;;;SY)(A;;GRGWGX;;;BA)(A;;GRGW;;;WD)(A;;GR;;;RC)";
    const struct {
        const char16_t* sddl;
        Token::Account account;
        ACCESS_MASK desired;
        ACCESS_MASK granted;  ///< 0: refused
    } cases[] = {
        {kDevice, kLocalSystem, GENERIC_ALL, FILE_ALL_ACCESS},
        {kDevice, kAdministrator, GENERIC_ALL, 0},
        {kDevice, kAdministrator, GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE, 0x001201BF},
        {kDevice, kUser, GENERIC_READ | GENERIC_WRITE, 0x0012019F},
        {kDevice, kUser, GENERIC_EXECUTE, 0},
        {kDevice, kRestricted, GENERIC_READ, FILE_GENERIC_READ},
        {kDevice, kRestricted, GENERIC_WRITE, 0},
        {kDevice, kUser, MAXIMUM_ALLOWED, 0x0012019F},
        {kDevice, kRestricted, MAXIMUM_ALLOWED, FILE_GENERIC_READ},
        // What comes first decides.
        {u"D:(D;;0x2;;;BU)(A;;0x3;;;WD)", kUser, 0x3, 0},
        {u"D:(D;;0x2;;;BU)(A;;0x3;;;WD)", kUser, MAXIMUM_ALLOWED, 0x1},
        {u"D:(A;;0x3;;;WD)(D;;0x2;;;BU)", kUser, 0x3, 0x3},
        {u"D:(D;;0x2;;;BU)(A;;0x3;;;WD)", kLocalSystem, 0x3, 0x3},
        // Rights add up over entries; an entry for children only does not count.
        {u"D:(A;;0x1;;;BU)(A;;0x2;;;AU)", kUser, 0x3, 0x3},
        {u"D:(A;OICIIO;0x3;;;WD)", kUser, 0x1, 0},
        // Both lists of a restricted token must allow.
        {u"D:(A;;0x3;;;RC)(A;;0x1;;;BU)", kRestricted, 0x1, 0x1},
        {u"D:(A;;0x3;;;RC)(A;;0x1;;;BU)", kRestricted, 0x2, 0},
        {u"D:(A;;0x3;;;BU)", kRestricted, 0x1, 0},
        // No list allows everything, an empty one nothing but the owner's rights.
        {u"O:SY", kUser, GENERIC_ALL, FILE_ALL_ACCESS},
        {u"D:NO_ACCESS_CONTROL", kRestricted, GENERIC_ALL, FILE_ALL_ACCESS},
        {u"D:", kLocalSystem, 0x1, 0},
        {u"D:", kLocalSystem, MAXIMUM_ALLOWED, 0},
        {u"O:BAD:", kAdministrator, READ_CONTROL | WRITE_DAC, READ_CONTROL | WRITE_DAC},
        {u"O:BAD:", kUser, READ_CONTROL, 0},
        // The audit list takes a privilege, whatever the list says.
        {u"D:(A;;0x01000001;;;WD)", kUser, ACCESS_SYSTEM_SECURITY | 0x1, 0},
        {u"D:(A;;0x1;;;WD)", kAdministrator, ACCESS_SYSTEM_SECURITY | 0x1,
         ACCESS_SYSTEM_SECURITY | 0x1},
    };
    for (const auto& row : cases) {
        SecurityDescriptor descriptor;
        ASSERT_EQ(ParseSddl(row.sddl, descriptor), STATUS_SUCCESS) << ToUtf8(row.sddl);
        ACCESS_MASK granted = 0;
        const NTSTATUS status =
            AccessCheck(descriptor, Token{row.account}, row.desired, kFileMapping, &granted);
        EXPECT_EQ(status, row.granted == 0 ? STATUS_ACCESS_DENIED : STATUS_SUCCESS)
            << ToUtf8(row.sddl) << " account " << static_cast<int>(row.account) << " desired "
            << std::hex << row.desired;
        EXPECT_EQ(granted, row.granted) << ToUtf8(row.sddl) << std::hex << ' ' << row.desired;
    }
}

TEST(AccessCheck, RefusesDamagedDescriptors) {
    SecurityDescriptor whole;
    ASSERT_EQ(ParseSddl(u"D:(A;;GA;;;SY)(A;;GR;;;S-1-5-21-1-2-3-4)", whole), STATUS_SUCCESS);
    for (std::size_t size = 1; size < whole.bytes.size(); ++size) {
        const SecurityDescriptor cut{{whole.bytes.begin(), whole.bytes.begin() + size}};
        ACCESS_MASK granted = 0;
        EXPECT_EQ(AccessCheck(cut, Token{}, GENERIC_READ, kFileMapping, &granted),
                  STATUS_INVALID_SECURITY_DESCR)
            << size << " bytes";
    }
}

}  // namespace
}  // namespace platform
