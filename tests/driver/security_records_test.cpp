// Records of changes of a key's security: what counts as a change, and what the record holds.
#include "driver/record_test.h"
#include "intercept/tracing.h"
#include "platform/kernel/security_descriptor.h"
#include "records/security_change.h"
#include "records/sid_text.h"

#include <set>

namespace driver_test {

namespace {

using namespace zpregflt;
using platform::DescriptorParts;
using platform::SecurityBytes;

constexpr SECURITY_INFORMATION kOwner = OWNER_SECURITY_INFORMATION;
constexpr SECURITY_INFORMATION kGroup = GROUP_SECURITY_INFORMATION;
constexpr SECURITY_INFORMATION kDacl = DACL_SECURITY_INFORMATION;
constexpr SECURITY_INFORMATION kSacl = SACL_SECURITY_INFORMATION;

SecurityBytes BytesOf(const void* data, std::size_t size) {
    const auto* const bytes = static_cast<const std::byte*>(data);
    return {bytes, bytes + size};
}

/// S-1-5-<number>.
SecurityBytes Sid(ULONG number) {
    const SID sid = {SID_REVISION, 1, {{0, 0, 0, 0, 0, 5}}, {number}};
    return BytesOf(&sid, sizeof(sid));
}

/// Lets everyone in. A letter behind the identifier tells entries apart.
SecurityBytes Ace(char letter, std::size_t size = 24, UCHAR type = ACCESS_ALLOWED_ACE_TYPE) {
    const ACE_HEADER header = {type, 0, static_cast<USHORT>(size)};
    constexpr ACCESS_MASK kMask = KEY_ALL_ACCESS;
    constexpr SID kEveryone = {SID_REVISION, 1, {{0, 0, 0, 0, 0, 1}}, {0}};
    SecurityBytes ace(size);
    std::memcpy(ace.data(), &header, sizeof(header));
    std::memcpy(ace.data() + 4, &kMask, sizeof(kMask));
    std::memcpy(ace.data() + 8, &kEveryone, sizeof(kEveryone));
    ace.back() = static_cast<std::byte>(letter);
    return ace;
}

/// A list of one entry for each letter. "-": no list. "0": a null list, which lets everyone in.
void SetList(std::string_view letters, USHORT presentBit, SecurityBytes& list, USHORT& control) {
    if (letters == "-") return;
    control |= presentBit;
    if (letters == "0") return;
    std::vector<SecurityBytes> entries;
    for (const char letter : letters)
        entries.push_back(Ace(letter, letter < 'a' ? 28 : 24));
    list = platform::MakeAcl(entries);
}

/// Owner and group by number, 0: none.
std::vector<std::byte> Descriptor(ULONG owner, ULONG group, std::string_view dacl,
                                  std::string_view sacl) {
    DescriptorParts parts;
    if (owner != 0) parts.owner = Sid(owner);
    if (group != 0) parts.group = Sid(group);
    SetList(dacl, SE_DACL_PRESENT, parts.dacl, parts.control);
    SetList(sacl, SE_SACL_PRESENT, parts.sacl, parts.control);
    return platform::JoinDescriptor(parts).bytes;
}

/// The parts that CompareSecurity found changed, as the bits that ask for them.
SECURITY_INFORMATION Changed(std::vector<std::byte> before, std::vector<std::byte> after,
                             SECURITY_INFORMATION requested) {
    const SecurityChanges changes = CompareSecurity(before.data(), after.data(), requested);
    SECURITY_INFORMATION changed = 0;
    for (ULONG part = 0; part < kSecurityPartCount; ++part)
        changed |= changes.Parts[part].Old != nullptr ? 1u << part : 0;
    return changed;
}

/// The same from the letters alone.
bool ListChanged(std::string_view before, std::string_view after) {
    const auto hasNone = [](std::string_view list) { return list == "-" || list == "0"; };
    if (hasNone(before) || hasNone(after)) return false;
    const std::set<char> held(after.begin(), after.end());
    return before.size() != after.size() ||
           std::any_of(before.begin(), before.end(), [&](char ace) { return !held.contains(ace); });
}

constexpr std::string_view kLists[] = {"-",   "0",   "",    "a",   "b",    "A",
                                       "ab",  "ba",  "aa",  "aA",  "abc",  "cab",
                                       "aab", "abb", "abd", "AbC", "abcc", "abca"};

TEST(SecurityChangeTest, ListsByContent) {
    for (const std::string_view before : kLists) {
        for (const std::string_view after : kLists) {
            const bool changed = ListChanged(before, after);
            SCOPED_TRACE(std::string(before) + " to " + std::string(after));
            EXPECT_EQ(Changed(Descriptor(1, 1, before, "x"), Descriptor(1, 1, after, "x"), 0),
                      changed ? kDacl : 0);
            EXPECT_EQ(Changed(Descriptor(1, 1, "x", before), Descriptor(2, 2, "y", after), kDacl),
                      (changed ? kSacl : 0) | kDacl);
        }
    }
    EXPECT_FALSE(ListChanged("aab", "abd")) << "two entries may be found in one";
}

TEST(SecurityChangeTest, OwnerAndGroupOnlyOnRequest) {
    struct Case {
        ULONG ownerBefore, ownerAfter, groupBefore, groupAfter;
        SECURITY_INFORMATION requested, changed;
    };
    // The access lists differ, too. What cannot be read ends the comparison.
    for (const Case& c : {Case{1, 1, 1, 1, kOwner | kGroup, kDacl | kSacl},
                          {1, 2, 1, 2, 0, kDacl | kSacl},
                          {1, 2, 1, 2, kOwner, kOwner | kDacl | kSacl},
                          {1, 2, 1, 2, kGroup, kGroup | kDacl | kSacl},
                          {1, 2, 1, 2, kOwner | kGroup, kOwner | kGroup | kDacl | kSacl},
                          {0, 2, 1, 2, kOwner | kGroup, 0},
                          {1, 0, 1, 2, kOwner | kGroup, 0},
                          {0, 0, 1, 2, kGroup, kGroup | kDacl | kSacl},
                          {1, 2, 0, 1, kOwner | kGroup, kOwner},
                          {1, 2, 1, 0, kOwner | kGroup, kOwner},
                          {1, 1, 0, 0, kOwner | kGroup, 0}}) {
        EXPECT_EQ(Changed(Descriptor(c.ownerBefore, c.groupBefore, "a", "a"),
                          Descriptor(c.ownerAfter, c.groupAfter, "b", "b"), c.requested),
                  c.changed)
            << c.ownerBefore << c.ownerAfter << c.groupBefore << c.groupAfter << c.requested;
    }
}

TEST(SecurityChangeTest, DamagedLists) {
    std::vector<std::byte> good = Descriptor(1, 1, "ab", "-");
    for (const USHORT size : {0, 3, 23, 25, 0xFFFF}) {
        std::vector<std::byte> bad = good;
        auto* const acl = reinterpret_cast<ACL*>(
            bad.data() + reinterpret_cast<SECURITY_DESCRIPTOR_RELATIVE*>(bad.data())->Dacl);
        reinterpret_cast<ACE_HEADER*>(acl + 1)->AceSize = size;
        EXPECT_EQ(Changed(good, bad, 0), kDacl) << size;
        EXPECT_EQ(Changed(bad, good, 0), kDacl) << size;
        EXPECT_EQ(Changed(bad, bad, 0), kDacl) << size;
    }
}

TEST(SidTextTest, AllForms) {
    SID longest = {255, 15, {{255, 255, 255, 255, 255, 255}}, {}};
    std::vector<std::byte> bytes = BytesOf(&longest, 8);
    bytes.resize(8 + 15 * sizeof(ULONG), std::byte{0xFF});
    std::string text = "S-255-0xFFFFFFFFFFFF";
    for (int i = 0; i < 15; ++i)
        text += "-4294967295";
    EXPECT_EQ(SidText(bytes.data()).Text(), text);
    EXPECT_STREQ(SidText(Sid(18).data()).Text(), "S-1-5-18");
    longest = {1, 0, {{0, 0, 255, 255, 255, 255}}, {}};
    EXPECT_STREQ(SidText(&longest).Text(), "S-1-4294967295");
}

// --- Records -------------------------------------------------------------------------------------

class SecurityRecordsTest : public RecordTest {
protected:
    void SetUp() override { StartRecording(operation::kSetKeySecurity); }

    static NTSTATUS Set(HANDLE key, SECURITY_INFORMATION what, const DescriptorParts& parts) {
        return NtSetSecurityObject(key, what, platform::JoinDescriptor(parts).bytes.data());
    }
    static DescriptorParts Lists(const SecurityBytes& dacl, const SecurityBytes& sacl) {
        DescriptorParts parts;
        parts.dacl = dacl;
        parts.sacl = sacl;
        parts.control |= SE_DACL_PRESENT | SE_SACL_PRESENT;
        return parts;
    }
    template <typename Actions>
    std::vector<RawRecord> Changes(Actions actions) {
        return Recorded({RecordType::kKeySecuritySet}, actions, 0x100000);
    }
    /// The section at `offset`: old and new bytes.
    static std::pair<std::string, std::string> Section(const RawRecord& record, ULONG offset) {
        const USHORT before = record.Short(offset);
        return {record.Data(offset + 4, before),
                record.Data(offset + 4 + before, record.Short(offset + 2))};
    }
    static std::string TextOf(const SecurityBytes& bytes) {
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
};

/// What the platform gives to and takes from its administrators.
const SecurityBytes kSystem = Sid(18);

TEST_F(SecurityRecordsTest, SectionsOfWhatChanged) {
    const SecurityBytes list = platform::MakeAcl({Ace('a'), Ace('b')});
    const SecurityBytes reordered = platform::MakeAcl({Ace('b'), Ace('a')});
    const SecurityBytes longer = platform::MakeAcl({Ace('a'), Ace('c', 32)});
    DescriptorParts both = Lists(longer, {});
    both.group = kSystem;
    const auto records = Changes([&](HANDLE key) {
        EXPECT_EQ(Set(key, kDacl, Lists(list, {})), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, kDacl, Lists(reordered, {})), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, kDacl | kGroup, both), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, kDacl | kGroup, both), STATUS_SUCCESS);
        EXPECT_EQ(Set(nullptr, kDacl, both), STATUS_INVALID_HANDLE);
    });
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].key, kKey);
    for (const RawRecord& record : records) {
        EXPECT_EQ(record.Short(40), 0u);
        EXPECT_EQ(record.Short(46), 0u);
    }
    EXPECT_EQ(records[0].Short(42), 0u);
    EXPECT_EQ(records[0].Short(44), 48u);
    EXPECT_EQ(Section(records[0], 48).second, TextOf(list));
    ASSERT_EQ(records[1].Short(42), 48u);
    const auto group = Section(records[1], 48);
    EXPECT_EQ(group.second, TextOf(kSystem));
    ASSERT_EQ(records[1].Short(44), 48 + 4 + group.first.size() + group.second.size());
    EXPECT_EQ(Section(records[1], records[1].Short(44)),
              std::make_pair(TextOf(reordered), TextOf(longer)));

    // An owner alone.
    DescriptorParts owner;
    owner.owner = kSystem;
    const auto owned =
        Changes([&](HANDLE key) { EXPECT_EQ(Set(key, kOwner, owner), STATUS_SUCCESS); });
    ASSERT_EQ(owned.size(), 1u);
    EXPECT_EQ(owned[0].Short(40), 48u);
    EXPECT_EQ(owned[0].Short(42) | owned[0].Short(44) | owned[0].Short(46), 0);
    EXPECT_EQ(Section(owned[0], 48).second, TextOf(kSystem));
}

/// Lists of tens of kilobytes: a record takes what its 16-bit offsets reach.
TEST_F(SecurityRecordsTest, LargeLists) {
    const auto large = [](char letter, UCHAR type) {
        return platform::MakeAcl({Ace(letter, 20000, type), Ace(letter, 20000, type)});
    };
    const auto dacl = [&](char letter) { return large(letter, ACCESS_ALLOWED_ACE_TYPE); };
    const auto sacl = [&](char letter) { return large(letter, SYSTEM_AUDIT_ACE_TYPE); };
    const auto records = Changes([&](HANDLE key) {
        EXPECT_EQ(Set(key, kDacl | kSacl, Lists(dacl('a'), sacl('a'))), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, kDacl, Lists(dacl('b'), {})), STATUS_SUCCESS);
        EXPECT_EQ(Set(key, kDacl | kSacl, Lists(dacl('c'), sacl('c'))), STATUS_SUCCESS);
    });
    ASSERT_EQ(records.size(), 4u);
    for (const std::size_t i : {1u, 2u}) {
        EXPECT_EQ(records[i].Short(44), 48u);
        EXPECT_EQ(records[i].Short(46), 0u);
    }
    EXPECT_EQ(Section(records[1], 48), std::make_pair(TextOf(dacl('a')), TextOf(dacl('b'))));
    EXPECT_EQ(Section(records[2], 48), std::make_pair(TextOf(dacl('b')), TextOf(dacl('c'))));
    EXPECT_EQ(records[3].Short(44), 0u);
    ASSERT_EQ(records[3].Short(46), 48u);
    EXPECT_EQ(Section(records[3], 48), std::make_pair(TextOf(sacl('a')), TextOf(sacl('c'))));
}

/// The descriptor captured before is given back on every road: the machine tells if it is not.
TEST_F(SecurityRecordsTest, RoadsWithoutARecord) {
    const DescriptorParts one = Lists(platform::MakeAcl({Ace('a')}), {});
    const DescriptorParts two = Lists(platform::MakeAcl({Ace('b')}), {});
    const auto records = Changes([&](HANDLE key) {
        Set(key, kDacl, one);
        for (const ULONG call : {1u, 2u}) {
            const FaultPlan plan({.routine = "ObGetObjectSecurity", .nth = call});
            EXPECT_EQ(Set(key, kDacl, call == 1 ? two : one), STATUS_SUCCESS);
            EXPECT_TRUE(plan.Fired());
        }
        Notifier notifier(key);
        SECURITY_INFORMATION requested = kDacl;
        REG_SET_KEY_SECURITY_INFORMATION request = {};
        request.SecurityInformation = &requested;
        notifier.Before(RegNtPreSetKeySecurity, request);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(request.CallContext) & 1, 1u);
        Set(key, kDacl, two);  // by somebody else, between the notifications
        EXPECT_FALSE(notifier.After(RegNtPostSetKeySecurity, request, STATUS_ACCESS_DENIED));
        request.CallContext = nullptr;
        EXPECT_FALSE(notifier.After(RegNtPostSetKeySecurity, request));
        // What was requested cannot be read: the lists are compared all the same.
        notifier.Before(RegNtPreSetKeySecurity, request);
        Set(key, kDacl, one);
        request.SecurityInformation = nullptr;
        EXPECT_TRUE(notifier.After(RegNtPostSetKeySecurity, request));
    });
    EXPECT_EQ(records.size(), 4u);
    // No room.
    const SecurityBytes most = platform::MakeAcl({Ace('x', 0xFFF0)});
    EXPECT_TRUE(Recorded({RecordType::kKeySecuritySet}, [&](HANDLE key) {
                    EXPECT_EQ(Set(key, kDacl, Lists(most, {})), STATUS_SUCCESS);
                }).empty());
}

TEST_F(SecurityRecordsTest, TracesOfEachPart) {
    Stop();
    SetParameter(u"Trace", u"Operations", operation::kSetKeySecurity);
    Start();
    std::vector<std::string> lines;
    platform::TraceController controller(kTraceProviderId, [&](const platform::TraceEvent& event) {
        if (event.arguments.size() < 5) return;
        EXPECT_EQ(event.Text(3), kKey);
        std::string line = event.NarrowText(4);
        for (std::size_t i = 5; i < event.arguments.size(); ++i)
            line += " " + event.NarrowText(i);
        lines.push_back(line);
    });
    const ThreadScope thread(Worker());
    const KeyHandle key =
        platform::MakeKey(kKey, {.access = KEY_ALL_ACCESS | ACCESS_SYSTEM_SECURITY});
    DescriptorParts parts = Lists(platform::MakeAcl({Ace('a')}),
                                  platform::MakeAcl({Ace('a', 24, SYSTEM_AUDIT_ACE_TYPE)}));
    parts.owner = kSystem;
    EXPECT_EQ(Set(key, kOwner | kDacl | kSacl, parts), STATUS_SUCCESS);
    parts = Lists(platform::MakeAcl({Ace('b')}),
                  platform::MakeAcl({Ace('b', 24, SYSTEM_AUDIT_ACE_TYPE)}));
    parts.group = Sid(19);
    controller.Enable(TRACE_LEVEL_INFORMATION, TRACE_OPERATION);
    EXPECT_EQ(Set(key, kGroup | kDacl | kSacl, parts), STATUS_SUCCESS);
    parts.group = Sid(20);
    EXPECT_EQ(Set(key, kGroup, parts), STATUS_SUCCESS);
    controller.Disable();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(lines[0].starts_with("group S-1-5-")) << lines[0];
    EXPECT_EQ(lines[1], "DACL");
    EXPECT_EQ(lines[2], "SACL");
    EXPECT_EQ(lines[3], "group S-1-5-19 S-1-5-20");
}

}  // namespace

}  // namespace driver_test
