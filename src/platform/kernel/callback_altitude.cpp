#include "platform/kernel/callback_altitude.h"

#include <algorithm>

namespace platform {
namespace {

bool IsNumber(std::u16string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char16_t character) {
        return character >= u'0' && character <= u'9';
    });
}

}  // namespace

std::optional<Altitude> Altitude::Parse(std::u16string_view text) {
    const std::size_t point = text.find(u'.');
    const std::u16string_view whole = text.substr(0, point);
    if (!IsNumber(whole)) return std::nullopt;
    Altitude altitude;
    altitude.whole_ = whole.substr(std::min(whole.find_first_not_of(u'0'), whole.size()));
    if (point != text.npos) {
        const std::u16string_view fraction = text.substr(point + 1);
        if (!IsNumber(fraction)) return std::nullopt;
        altitude.fraction_ = fraction.substr(0, fraction.find_last_not_of(u'0') + 1);
    }
    return altitude;
}

std::strong_ordering Altitude::operator<=>(const Altitude& other) const {
    if (whole_.size() != other.whole_.size()) return whole_.size() <=> other.whole_.size();
    if (whole_ != other.whole_) return whole_ <=> other.whole_;
    return fraction_ <=> other.fraction_;
}

std::u16string Altitude::Text() const {
    std::u16string text = whole_.empty() ? u"0" : whole_;
    if (!fraction_.empty()) text += u'.' + fraction_;
    return text;
}

}  // namespace platform
