#include "client/record_decoder.h"

#include "client/buffer_builder.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace zpregmon {
namespace {

struct Decoded {
    std::vector<Event> events;
    std::vector<std::size_t> places;
    std::optional<DecodeError> error;
};

Decoded Decode(std::span<const std::byte> image) {
    Decoded decoded;
    RecordDecoder decoder(image);
    for (Event event; decoder.Next(event);) {
        decoded.events.push_back(event);
        decoded.places.push_back(image.size() - event.Record().size());
    }
    Event beyond;
    EXPECT_FALSE(decoder.Next(beyond)) << "the end stays the end";
    decoded.error = decoder.Error();
    return decoded;
}

TEST(RecordDecoder, YieldsRecordsAndTheirSharedPath) {
    const auto builder = TwoRecords();
    const auto [events, places, error] = Decode(builder.Bytes());
    ASSERT_FALSE(error) << error->what;
    ASSERT_EQ(events.size(), 2U);
    EXPECT_EQ(events[0].Key(), u"\\A\\Key");
    EXPECT_EQ(events[1].Key(), u"\\A\\Key");
    EXPECT_EQ(events[0].Key()->data(), events[1].Key()->data()) << "text stays in the buffer";
    EXPECT_EQ(events[1].ProcessId(), 112U);
    EXPECT_EQ(places[1], 112U);
}

TEST(RecordDecoder, TakesOverEveryFieldOfTheHeader) {
    zpregflt::RecordHeader header{};
    header.Type = zpregflt::RecordType::kKeyFlushed;
    header.ProcessId = 0x11223344;
    header.ProcessKey = 0x5566778899AABBCC;
    header.SystemTime = 0x0123456789ABCDEF;
    header.KeyOperations = 0x402;
    const auto builder = BufferBuilder(64).First(16).Put(16, header);
    const auto [events, places, error] = Decode(builder.Bytes());
    ASSERT_FALSE(error);
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0].Type(), zpregflt::RecordType::kKeyFlushed);
    EXPECT_EQ(events[0].ProcessId(), 0x11223344U);
    EXPECT_EQ(events[0].ProcessKey(), 0x5566778899AABBCCU);
    EXPECT_EQ(events[0].SystemTime(), 0x0123456789ABCDEFU);
    EXPECT_EQ(events[0].Operations(), 0x402U);
    EXPECT_EQ(events[0].Key(), std::nullopt);
}

TEST(RecordDecoder, FollowsTheChainBackwards) {
    const auto builder =
        BufferBuilder(256).First(104).Record(104, -96, 0).Record(8, 56, 0).Record(64, 0, 0);
    const auto [events, places, error] = Decode(builder.Bytes());
    ASSERT_FALSE(error);
    ASSERT_EQ(events.size(), 3U);
    EXPECT_EQ(places[0], 104U);
    EXPECT_EQ(places[1], 8U);
    EXPECT_EQ(places[2], 64U);
}

TEST(RecordDecoder, EmptyBufferHasNoEvents) {
    const auto builder = BufferBuilder(8).First(0);
    const auto [events, places, error] = Decode(builder.Bytes());
    EXPECT_TRUE(events.empty());
    EXPECT_FALSE(error);
}

/// The end of a path is looked for several units at a time: every length up to and across that.
TEST(RecordDecoder, FindsTheEndOfPathsOfEveryLength) {
    for (std::size_t length = 0; length <= 20; ++length) {
        std::u16string path(length, u'\x8001');  // the high bit must not look like an end
        const auto builder =
            BufferBuilder(48 + (length + 1) * 2).First(8).Record(8, 0, 40).Text(48, path);
        const auto [events, places, error] = Decode(builder.Bytes());
        ASSERT_FALSE(error) << length;
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].Key(), path);
    }
}

/// Paths that were looked at are remembered by a part of their place, here by the same one.
TEST(RecordDecoder, TellsPathsApartThatLieFarBehindEachOther) {
    const auto builder = BufferBuilder(768)
                             .First(8)
                             .Record(8, 56, 40)
                             .Text(48, std::u16string_view(u"\\A\0", 3))
                             .Record(64, 456, 496)
                             .Record(520, 80, -472)
                             .Text(560, std::u16string_view(u"\\Other\0", 7))
                             .Record(600, 0, -40);
    const auto [events, places, error] = Decode(builder.Bytes());
    ASSERT_FALSE(error) << error->what;
    ASSERT_EQ(events.size(), 4U);
    const char16_t* const expected[] = {u"\\A", u"\\Other", u"\\A", u"\\Other"};
    for (std::size_t i = 0; i < events.size(); ++i) {
        EXPECT_EQ(events[i].Key(), expected[i]) << i;
    }
}

struct BufferDamage {
    const char* name;
    std::function<BufferBuilder()> build;
    std::size_t eventsBefore;
    std::uint64_t offset;
    const char* what;  ///< a part of the message
};

class DamagedBuffer : public testing::TestWithParam<BufferDamage> {};

TEST_P(DamagedBuffer, GivesEventsBeforeTheDamageAndNamesItsPlace) {
    const BufferDamage& damage = GetParam();
    const auto builder = damage.build();
    const auto [events, places, error] = Decode(builder.Bytes());
    EXPECT_EQ(events.size(), damage.eventsBefore);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->offset, damage.offset);
    EXPECT_NE(error->what.find(damage.what), std::string::npos) << error->what;
}

const BufferDamage kBufferDamages[] = {
    {"TooShortForAHeader", [] { return BufferBuilder(7); }, 0, 0, "7 bytes"},
    {"HeaderOfAnotherType", [] { return TwoRecords().Put(0, std::uint32_t{21}); }, 0, 0, "type 21"},
    {"FirstRecordBeforeTheImage", [] { return TwoRecords().First(-8); }, 0, 4, "at -8"},
    {"FirstRecordInTheHeader", [] { return TwoRecords().First(4); }, 0, 4, "at 4"},
    {"FirstRecordBeyondTheEnd", [] { return TwoRecords().First(256); }, 0, 4, "at 256"},
    {"RecordHeaderCutByTheEnd", [] { return TwoRecords().Record(8, 216, 40); }, 1, 12, "at 224"},
    {"RecordNotAligned", [] { return TwoRecords().Record(8, 100, 40); }, 1, 12, "multiple of 8"},
    {"LargestDistanceForward", [] { return TwoRecords().Record(8, 0x7FFFFFFF, 40); }, 1, 12,
     "at 2147483655"},
    {"LargestDistanceBack", [] { return TwoRecords().Record(8, -0x7FFFFFFF - 1, 40); }, 1, 12,
     "at -2147483640"},
    {"RecordOfTypeZero", [] { return TwoRecords().Record(112, 0, 0, 0); }, 1, 112, "type 0"},
    {"RecordOfUnknownType", [] { return TwoRecords().Record(112, 0, 0, 22); }, 1, 112, "type 22"},
    {"LoopOfTwo", [] { return TwoRecords().Record(112, -104, -64); }, 2, 116, "comes back"},
    {"LoopForwardToARecordBeforeTheTurn",
     [] {
         return BufferBuilder(256).First(8).Record(8, 104, 0).Record(112, -64, 0).Record(48, 64, 0);
     },
     3, 52, "comes back"},
    {"LoopBackToTheHeader", [] { return TwoRecords().Record(112, -112, -64); }, 2, 116, "at 0"},
    {"PathBeforeTheImage", [] { return TwoRecords().Record(112, 0, -120); }, 1, 148, "at -8"},
    {"PathInTheHeader", [] { return TwoRecords().Record(112, 0, -112); }, 1, 148, "at 0"},
    {"PathAtTheEnd", [] { return TwoRecords().Record(112, 0, 144); }, 1, 148, "at 256"},
    {"PathNotAligned", [] { return TwoRecords().Record(112, 0, -63); }, 1, 148, "multiple of 8"},
    {"PathWithoutAnEnd", [] { return TwoRecords().Record(112, 0, 136).Text(248, u"abcd"); }, 1, 248,
     "no end"},
};

INSTANTIATE_TEST_SUITE_P(RecordDecoder, DamagedBuffer, testing::ValuesIn(kBufferDamages),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(RecordDecoder, RefusesAnImageThatIsNotAligned) {
    const auto builder = TwoRecords();
    const auto [events, places, error] = Decode(std::span(builder.Bytes()).subspan(2));
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(error);
}

/// Whatever single byte is changed, nothing outside is read (the sanitizers watch) and it ends.
TEST(RecordDecoder, SurvivesEveryChangedByte) {
    const auto sound = TwoRecords();
    for (std::size_t at = 0; at < sound.Bytes().size(); ++at) {
        for (const int value : {0x00, 0x01, 0x7F, 0x80, 0xFF}) {
            auto image = sound.Bytes();
            image[at] = static_cast<std::byte>(value);
            EXPECT_LE(Decode(image).events.size(), 6U) << "at " << at;
        }
    }
}

}  // namespace
}  // namespace zpregmon
