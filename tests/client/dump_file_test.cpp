#include "client/dump_file.h"

#include "client/buffer_builder.h"
#include "client/scratch_file.h"

#include <gtest/gtest.h>

namespace zpregmon {
namespace {

/// The bytes of a dump file with the images in it.
std::vector<std::byte> MakeDump(const std::vector<std::vector<std::byte>>& images) {
    std::vector<std::byte> bytes;
    for (const auto& image : images) {
        const zpregflt::DumpBlockHeader header{zpregflt::kDumpBlockMagic,
                                               static_cast<std::uint32_t>(image.size())};
        const auto* start = reinterpret_cast<const std::byte*>(&header);
        bytes.insert(bytes.end(), start, start + sizeof(header));
        bytes.insert(bytes.end(), image.begin(), image.end());
    }
    return bytes;
}

struct Contents {
    std::vector<std::uint32_t> processIds;  ///< which tell the builder's records apart
    std::optional<DecodeError> error;
    std::uint64_t blocks = 0;
};

Contents Read(std::span<const std::byte> bytes) {
    const ScratchFile file(std::tmpfile());
    if (!bytes.empty()) {
        std::fwrite(bytes.data(), 1, bytes.size(), file.get());
    }
    std::rewind(file.get());
    DumpFileReader reader(file.get());
    Contents contents;
    for (Event event; reader.Next(event);) {
        contents.processIds.push_back(event.ProcessId());
        EXPECT_TRUE(event.Key());
    }
    contents.error = reader.Error();
    contents.blocks = reader.BlocksRead();
    return contents;
}

/// Two records and, as the driver writes them, not a byte more: the second path is cut off.
std::vector<std::byte> Image() {
    auto image = TwoRecords().Bytes();
    image.resize(152);
    return image;
}

std::vector<std::byte> EmptyImage() {
    return BufferBuilder(8).First(0).Bytes();
}

TEST(DumpFile, YieldsEveryBlocksEvents) {
    const auto contents = Read(MakeDump({Image(), EmptyImage(), Image()}));
    EXPECT_FALSE(contents.error);
    EXPECT_EQ(contents.processIds, (std::vector<std::uint32_t>{8, 112, 8, 112}));
    EXPECT_EQ(contents.blocks, 3U);
}

TEST(DumpFile, EmptyFileHasNoEvents) {
    const auto contents = Read({});
    EXPECT_FALSE(contents.error);
    EXPECT_TRUE(contents.processIds.empty());
}

/// Block 1 takes bytes 0 to 160, block 2 the next 160. Wherever the file is cut, the events before
/// the cut come, and an error where the file is not whole.
TEST(DumpFile, CutAnywhereGivesTheEventsBefore) {
    const auto whole = MakeDump({Image(), Image()});
    constexpr std::size_t kBlock = 160;
    ASSERT_EQ(whole.size(), 2 * kBlock);
    for (std::size_t length = 1; length < whole.size(); ++length) {
        const auto contents = Read(std::span(whole).first(length));
        const std::size_t inBlock = length % kBlock;
        // The first record needs its header and path (8 + 62 bytes), the second one all.
        const std::size_t expected = length / kBlock * 2 + (inBlock >= 8 + 62 ? 1 : 0);
        EXPECT_EQ(contents.processIds.size(), expected) << "cut at " << length;
        EXPECT_EQ(contents.error.has_value(), inBlock != 0) << "cut at " << length;
        if (contents.error) {
            const std::size_t place = inBlock < 8 ? length - inBlock : length;
            EXPECT_EQ(contents.error->offset, place) << contents.error->what;
            EXPECT_NE(contents.error->what.find("the file ends"), std::string::npos);
        }
    }
}

TEST(DumpFile, DamageIsNamedByItsPlaceInTheFile) {
    auto foreign = MakeDump({Image(), Image()});
    foreign[160] = std::byte{'X'};
    const auto atMagic = Read(foreign);
    EXPECT_EQ(atMagic.processIds.size(), 2U);
    ASSERT_TRUE(atMagic.error);
    EXPECT_EQ(atMagic.error->offset, 160U);

    auto badRecord = Image();
    badRecord[112] = std::byte{99};
    const auto atRecord = Read(MakeDump({Image(), badRecord, Image()}));
    EXPECT_EQ(atRecord.processIds.size(), 3U) << "nothing behind the damage";
    ASSERT_TRUE(atRecord.error);
    EXPECT_EQ(atRecord.error->offset, 160U + 8 + 112);

    const auto tooShort = Read(MakeDump({Image(), std::vector<std::byte>(4)}));
    ASSERT_TRUE(tooShort.error);
    EXPECT_EQ(tooShort.error->offset, 164U);
}

}  // namespace
}  // namespace zpregmon
