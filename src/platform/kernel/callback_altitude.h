// Altitudes: decimal numbers of any length, as text, that order callbacks.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

class Altitude {
public:
    /// Nothing unless `text` is digits, with at most one point between them.
    static std::optional<Altitude> Parse(std::u16string_view text);

    /// By value: 8 is below 10 and equal to 8.0.
    std::strong_ordering operator<=>(const Altitude& other) const;
    bool operator==(const Altitude& other) const = default;

    std::u16string Text() const;

private:
    std::u16string whole_;     ///< without leading zeros
    std::u16string fraction_;  ///< without trailing zeros
};

}  // namespace platform
