#include "client/exemption_request.h"

#include "driver/control_codes.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace zpregmon {

using zpregflt::ExemptionRequest;

namespace {

/// Entries start on multiples of this, and so do their members.
constexpr std::size_t kAlignment = 8;

std::size_t Align(std::size_t size) {
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

std::uint16_t Offset(std::size_t offset) {
    if (offset > std::numeric_limits<std::uint16_t>::max()) {
        throw std::invalid_argument("an exemption is too long: its offsets have 16 bits");
    }
    return static_cast<std::uint16_t>(offset);
}

/// One entry under construction: its header, and the members behind it.
class EntryBuilder {
public:
    /// Appends the member and returns its offset.
    std::uint16_t Append(const void* data, std::size_t size) {
        const std::uint16_t offset = Offset(bytes_.size());
        bytes_.resize(Align(bytes_.size() + size));
        std::memcpy(bytes_.data() + offset, data, size);
        return offset;
    }

    template <typename Text>
    std::uint16_t AppendText(const std::optional<Text>& text) {
        if (!text) {
            return 0;
        }
        if (text->find(typename Text::value_type{}) != Text::npos) {
            throw std::invalid_argument("an exemption's name holds a zero");
        }
        return Append(text->c_str(), (text->size() + 1) * sizeof(typename Text::value_type));
    }

    std::vector<std::byte> Finish(ExemptionRequest header, bool last) {
        header.NextEntryOffset = last ? 0 : Offset(bytes_.size());
        std::memcpy(bytes_.data(), &header, sizeof(header));
        return std::move(bytes_);
    }

private:
    std::vector<std::byte> bytes_ = std::vector<std::byte>(Align(sizeof(ExemptionRequest)));
};

std::vector<std::byte> BuildEntry(const Exemption& exemption, bool last) {
    if (!exemption.narrowName && !exemption.imageName) {
        throw std::invalid_argument("an exemption carries no name");
    }
    if (exemption.narrowName && exemption.narrowName->empty()) {
        throw std::invalid_argument("an exemption's narrow name is empty");
    }
    EntryBuilder builder;
    ExemptionRequest header{};
    header.NarrowNameOffset = builder.AppendText(exemption.narrowName);
    header.WideName1Offset = builder.AppendText(exemption.imageName);
    if (exemption.identifier) {
        header.IdentifierOffset =
            builder.Append(exemption.identifier->data(), exemption.identifier->size());
    }
    header.WideName2Offset = builder.AppendText(exemption.creatorName);
    return builder.Finish(header, last);
}

}  // namespace

std::vector<std::byte> BuildExemptionRequest(std::span<const Exemption> exemptions) {
    std::vector<std::byte> request;
    for (std::size_t i = 0; i < exemptions.size(); ++i) {
        const auto entry = BuildEntry(exemptions[i], i + 1 == exemptions.size());
        request.insert(request.end(), entry.begin(), entry.end());
    }
    return request;
}

}  // namespace zpregmon
