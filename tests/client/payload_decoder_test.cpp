#include "client/payload_decoder.h"

#include "client/every_kind.h"
#include "client/record_decoder.h"

#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>

namespace zpregmon {
namespace {

using zpregflt::RecordType;

std::string Hex(Bytes bytes) {
    std::string text;
    for (const std::byte byte : bytes) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[std::to_integer<unsigned>(byte) >> 4];
        text += kDigits[std::to_integer<unsigned>(byte) & 0xF];
    }
    return text;
}

TEST(PayloadDecoder, DecodesEveryKind) {
    const std::vector<std::byte> image = EveryKind();
    RecordDecoder decoder(image);
    std::vector<Event> events;
    std::set<RecordType> kinds;
    for (Event event; decoder.Next(event);) {
        events.push_back(event);
        kinds.insert(event.Type());
        EXPECT_EQ(event.Key(), kExampleKey);
    }
    ASSERT_FALSE(decoder.Error()) << decoder.Error()->what;
    ASSERT_EQ(kinds.size(), zpregflt::kLastRecordType);

    const auto start = events[0].As<ValueSet>().value();
    EXPECT_EQ(start.value, u"Start");
    EXPECT_EQ(start.type, 4U);
    EXPECT_EQ(start.data.size, 4U);
    EXPECT_EQ(Hex(start.data.captured), "02000000");
    ASSERT_TRUE(start.previous);
    EXPECT_EQ(start.previous->size, 4U);
    EXPECT_EQ(Hex(start.previous->captured), "03000000");
    EXPECT_EQ(start.data.captured.data(), events[0].Record().data() + 68) << "not copied";

    const auto blob = events[3].As<ValueSet>().value();
    EXPECT_EQ(blob.value.Copy(), u"Blob");
    EXPECT_EQ(blob.data.size, 100U);
    EXPECT_EQ(Hex(blob.data.captured), "dead01");
    EXPECT_FALSE(blob.previous);

    EXPECT_EQ(events[4].As<ValueDeleted>()->value, u"Start");
    EXPECT_FALSE(events[4].As<ValueSet>()) << "of another kind";
    const auto enumerated = events[5].As<ValueEnumerated>().value();
    EXPECT_EQ(enumerated.index, 3U);
    EXPECT_EQ(enumerated.informationClass, 1U);
    EXPECT_EQ(enumerated.data.size(), 36U);
    const auto queried = events[6].As<ValueQueried>().value();
    EXPECT_EQ(queried.value, u"Start");
    EXPECT_EQ(queried.informationClass, 2U);
    EXPECT_EQ(Hex(queried.data), "00000000040000000400000002000000");

    const auto values = events[7].As<ValuesQueried>().value();
    ASSERT_EQ(values.size(), 3U);
    EXPECT_EQ(values[0].value, u"a");
    EXPECT_EQ(Hex(values[0].data), "07000000");
    EXPECT_EQ(values[1].value, u"b");
    EXPECT_EQ(values[1].type, 3U);
    EXPECT_EQ(Hex(values[1].data), "aabb");
    EXPECT_FALSE(values[2].value);
    EXPECT_EQ(values[2].size, 9U);
    EXPECT_TRUE(values[2].data.empty());

    EXPECT_EQ(events[9].As<KeyRenamed>()->newName, u"Dhcp2");
    EXPECT_EQ(events[11].As<KeyInformation>()->informationClass, 2U);
    EXPECT_EQ(events[12].As<HiveLoaded>()->name, u"\\REGISTRY\\USER\\x");
    EXPECT_EQ(events[12].As<HiveLoaded>()->file, u"\\??\\C:\\x.dat");
    EXPECT_EQ(events[13].As<FileOperation>()->file, u"\\Device\\x.hv");
    EXPECT_EQ(events[13].As<FileOperation>()->options, 2U);
    EXPECT_FALSE(events[14].As<FileOperation>()->file);
    EXPECT_EQ(events[15].As<KeyReplaced>()->newFile, u"new");
    EXPECT_EQ(events[15].As<KeyReplaced>()->oldFile, u"old");

    const auto security = events[22].As<KeySecuritySet>().value();
    ASSERT_TRUE(security.owner && security.dacl);
    EXPECT_FALSE(security.group || security.sacl);
    EXPECT_EQ(Hex(security.owner->before), "010100000000000512000000");
    EXPECT_EQ(Hex(security.owner->after), "010100000000000513000000");
    EXPECT_EQ(security.dacl->after.size(), 28U);
    EXPECT_EQ(events[23].As<KeySecurityQueried>()->information, 7U);
    EXPECT_EQ(events[23].As<KeySecurityQueried>()->descriptor.size(), 72U);
}

/// However many entries point at the same bytes, the values have no more data than the record.
TEST(PayloadDecoder, ValuesThatShareTheirDataAreNotMultiplied) {
    constexpr std::uint32_t kCount = 1000;
    constexpr std::uint32_t kData = 44 + kCount * 16 + 4;
    RecordBody body;
    body.U32(kCount);
    for (std::uint32_t i = 0; i < kCount; ++i) {
        body.U32(4000).U32(kData).U32(3).U32(kData - 4);
    }
    body.Text(std::u16string_view(u"n\0", 2));
    for (int i = 0; i < 500; ++i) {
        body.U64(0);
    }
    const auto chain = RecordChain(u"x").Add(RecordType::kValuesQueried, body);
    RecordDecoder decoder(chain.Bytes());
    Event event;
    ASSERT_TRUE(decoder.Next(event));
    const ValuesQueried values = event.As<ValuesQueried>().value();
    std::size_t taken = 0;
    for (std::uint32_t i = 0; i < kCount; ++i) {
        taken += values[i].data.size();
        EXPECT_EQ(values[i].size, 4000U);
    }
    EXPECT_EQ(values[0].data.size(), 4000U);
    EXPECT_EQ(values[0].value, u"n");
    EXPECT_LE(taken, event.Record().size());
    EXPECT_FALSE(values[kCount - 1].value);
}

struct PayloadDamage {
    const char* name;
    RecordType type;
    RecordBody body;
    std::size_t offset;  ///< in the record
    const char* what;    ///< a part of the message
};

class DamagedRecord : public testing::TestWithParam<PayloadDamage> {};

TEST_P(DamagedRecord, NamesItsPlace) {
    const PayloadDamage& damage = GetParam();
    const auto chain = RecordChain(u"x").Add(RecordType::kKeyFlushed).Add(damage.type, damage.body);
    RecordDecoder decoder(chain.Bytes());
    Event event;
    ASSERT_TRUE(decoder.Next(event));
    const std::size_t record =
        chain.Bytes().size() - event.Record().size() + sizeof(zpregflt::RecordHeader);
    EXPECT_FALSE(decoder.Next(event));
    ASSERT_TRUE(decoder.Error());
    EXPECT_EQ(decoder.Error()->offset, record + damage.offset) << decoder.Error()->what;
    EXPECT_NE(decoder.Error()->what.find(damage.what), std::string::npos) << decoder.Error()->what;
}

RecordBody SetBody(std::uint32_t name, std::uint32_t size, std::uint32_t captured,
                   std::uint32_t previous, std::uint32_t previousCaptured) {
    return RecordBody()
        .U32(name)
        .U32(3)
        .U32(size)
        .U32(captured)
        .U32(previous)
        .U32(4)
        .U32(previousCaptured)
        .U32(0)
        .TextAndZero(u"ab")
        .Align(4)
        .U32(0);
}

constexpr std::uint32_t kHuge = 0xFFFFFFFF;

const PayloadDamage kPayloadDamages[] = {
    {"SetCutOff", RecordType::kValueSet, RecordBody().U32(0), 0, "cut off after 48 bytes"},
    {"SetDataOutside", RecordType::kValueSet, SetBody(72, kHuge, kHuge, 0, 0), 52, "the data"},
    {"SetCapturedMoreThanThereIs", RecordType::kValueSet, SetBody(72, 3, 4, 0, 0), 52,
     "than the 3"},
    {"SetNameInsideTheData", RecordType::kValueSet, SetBody(71, 4, 4, 0, 0), 40, "at 71"},
    {"SetNameOutside", RecordType::kValueSet, SetBody(kHuge, 4, 4, 0, 0), 40, "at 4294967295"},
    {"SetNameWithoutEnd", RecordType::kValueSet, SetBody(87, 4, 4, 0, 0), 87, "no end"},
    {"SetPreviousNotAligned", RecordType::kValueSet, SetBody(72, 4, 4, 82, 4), 56, "multiple of 4"},
    {"SetPreviousInFront", RecordType::kValueSet, SetBody(72, 4, 4, 68, 4), 56, "behind"},
    {"SetPreviousOutside", RecordType::kValueSet, SetBody(72, 4, 4, 88, 4), 64, "previous data"},
    {"SetPreviousTooLong", RecordType::kValueSet, SetBody(72, 4, 4, 80, 5), 64, "than the 4"},
    {"DeletedWithoutEnd", RecordType::kValueDeleted, RecordBody().Text(u"abcd"), 40, "no end"},
    {"InformationOutside", RecordType::kKeyQueried, RecordBody().U32(0).U32(1), 44,
     "1 bytes at 48"},
    {"EnumeratedOutside", RecordType::kValueEnumerated,
     RecordBody().U32(0).U32(0).U32(kHuge).U32(0), 48, "4294967295 bytes"},
    {"QueriedNameInsideTheData", RecordType::kValueQueried,
     RecordBody().U32(52).U32(2).U32(2).U16(7).U16(0), 40, "between 54"},
    {"TooManyEntries", RecordType::kValuesQueried, RecordBody().U32(0x10000001).U32(0), 40,
     "entries"},
    {"SecondNameInsideTheFirst", RecordType::kHiveLoaded, RecordBody().U32(46).TextAndZero(u"abc"),
     40, "between 52"},
    {"FileNameInsideTheFields", RecordType::kKeySaved,
     RecordBody().U32(1).U32(48).U16(2).U16(2).U32(0).U64(0), 44, "at 64 or behind"},
    {"FileNameOutside", RecordType::kKeySaved,
     RecordBody().U32(1).U32(64).U16(2).U16(2).U32(0).U64(0), 44, "2 bytes at 64"},
    {"FileNameOdd", RecordType::kKeyRestored,
     RecordBody().U32(1).U32(64).U16(3).U16(4).U32(0).U64(0).U64(0), 44, "16-bit characters"},
    {"SectionInsideTheFields", RecordType::kKeySecuritySet,
     RecordBody().U16(0).U16(46).U16(0).U16(0).U64(0), 42, "the group"},
    {"SectionHeaderOutside", RecordType::kKeySecuritySet,
     RecordBody().U16(0).U16(0).U16(0).U16(0xFFFE), 46, "the SACL"},
    {"SectionOldOutside", RecordType::kKeySecuritySet,
     RecordBody().U16(48).U16(0).U16(0).U16(0).U16(5).U16(0).U32(0), 48, "5 bytes at 52"},
    {"SectionNewOutside", RecordType::kKeySecuritySet,
     RecordBody().U16(48).U16(0).U16(0).U16(0).U16(1).U16(4).U32(0), 50, "4 bytes at 53"},
};

INSTANTIATE_TEST_SUITE_P(PayloadDecoder, DamagedRecord, testing::ValuesIn(kPayloadDamages),
                         [](const auto& test) { return std::string(test.param.name); });

/// Whatever single byte is changed and wherever the image is cut: nothing outside is read (the
/// sanitizers watch), also when the fields are looked at.
TEST(PayloadDecoder, SurvivesEveryChangedByteAndCut) {
    const std::vector<std::byte> sound = EveryKind();
    const auto decode = [](Bytes image) {
        std::size_t seen = 0;
        RecordDecoder decoder(image);
        for (Event event; decoder.Next(event);) {
            if (const auto values = event.As<ValuesQueried>()) {
                for (std::uint32_t i = 0; i < values->size(); ++i) {
                    seen += Hex((*values)[i].data).size();
                }
            }
            ++seen;
        }
        return seen;
    };
    const std::size_t whole = decode(sound);
    for (std::size_t at = 0; at < sound.size(); ++at) {
        for (const int value : {0x00, 0x7F, 0xFF}) {
            auto image = sound;
            image[at] = static_cast<std::byte>(value);
            EXPECT_LE(decode(image), whole + sound.size() * 3) << "at " << at;
        }
        // A copy, so that the sanitizer knows where it ends.
        const std::vector<std::byte> cut(sound.begin(),
                                         sound.begin() + static_cast<std::ptrdiff_t>(at));
        EXPECT_LE(decode(cut), whole) << "cut at " << at;
    }
}

}  // namespace
}  // namespace zpregmon
