#include "client/exemption_request.h"

#include "driver/control_codes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace zpregmon {
namespace {

using zpregflt::ExemptionRequest;

Exemption Named(std::u16string name) {
    Exemption exemption;
    exemption.imageName = std::move(name);
    return exemption;
}

/// The zero-terminated text at an offset of an entry.
template <typename Char>
std::basic_string<Char> TextAt(std::span<const std::byte> entry, std::uint16_t offset) {
    std::basic_string<Char> text;
    for (Char c;; text.push_back(c)) {
        std::memcpy(&c, entry.data() + offset + text.size() * sizeof(Char), sizeof(Char));
        if (c == 0) {
            return text;
        }
    }
}

ExemptionRequest HeaderOf(std::span<const std::byte> entry) {
    ExemptionRequest header;
    std::memcpy(&header, entry.data(), sizeof(header));
    return header;
}

TEST(ExemptionRequest, ChainsEntriesWithTheirMembers) {
    Exemption full;
    full.narrowName = "a.exe";
    full.imageName = u"\\dir\\b.exe";
    full.creatorName = u"c.exe";
    full.identifier.emplace();
    for (std::size_t i = 0; i < 16; ++i) {
        (*full.identifier)[i] = static_cast<std::byte>(i + 1);
    }
    const Exemption entries[] = {full, Named(u"")};
    const auto request = BuildExemptionRequest(entries);

    const ExemptionRequest first = HeaderOf(request);
    EXPECT_EQ(TextAt<char>(request, first.NarrowNameOffset), "a.exe");
    EXPECT_EQ(TextAt<char16_t>(request, first.WideName1Offset), u"\\dir\\b.exe");
    EXPECT_EQ(TextAt<char16_t>(request, first.WideName2Offset), u"c.exe");
    EXPECT_EQ(std::memcmp(request.data() + first.IdentifierOffset, full.identifier->data(), 16), 0);

    ASSERT_NE(first.NextEntryOffset, 0);
    const auto second = std::span(request).subspan(first.NextEntryOffset);
    EXPECT_EQ(HeaderOf(second).NextEntryOffset, 0);
    EXPECT_EQ(HeaderOf(second).NarrowNameOffset, 0);
    EXPECT_EQ(HeaderOf(second).IdentifierOffset, 0);
    EXPECT_EQ(TextAt<char16_t>(second, HeaderOf(second).WideName1Offset), u"");
}

TEST(ExemptionRequest, RefusesWhatTheDriverWould) {
    Exemption noName;
    noName.creatorName = u"c.exe";
    Exemption emptyNarrow;
    emptyNarrow.narrowName = "";
    const Exemption wrong[] = {noName, emptyNarrow, Named(std::u16string(u"a\0b", 3)),
                               Named(std::u16string(40000, u'x'))};
    for (const Exemption& exemption : wrong) {
        const Exemption chain[] = {exemption, Named(u"x")};
        EXPECT_THROW(BuildExemptionRequest(chain), std::invalid_argument);
    }
}

}  // namespace
}  // namespace zpregmon
