// Data of values and blocks of information as people read them.
#pragma once

#include "client/event.h"
#include "client/event_time.h"

#include <cstdint>
#include <optional>

namespace zpregmon {

class TextSink;
struct KeyFacts;

/// How a type, a size and data become text.
enum class DataStyle {
    kShort,     ///< REG_DWORD 1
    kLabelled,  ///< Type: REG_DWORD, Length: 4, Data: 1
};

/// Writes one after the other into sinks. Strings stand in quotes, several strings in brackets,
/// numbers are decimal (and hex from 10 on), everything else is hex, of which no more than
/// kMostHexBytes bytes are shown. What the driver did not capture, or what is not shown, is
/// counted.
class DataText {
public:
    static constexpr std::size_t kMostHexBytes = 64;

    explicit DataText(DataStyle style) : style_(style) {}

    void PutTypeName(TextSink& out, std::uint32_t type) const;
    void PutTyped(TextSink& out, std::uint32_t type, const CapturedData& data) const;
    /// Data alone, read as data of this type where it can be.
    void PutData(TextSink& out, std::uint32_t type, const CapturedData& data) const;

    /// A block by its information class: its fields, with the class's name behind them in the short
    /// style and before them in the other. `value`: the name that the value was asked for by.
    void PutKeyInformation(TextSink& out, std::uint32_t informationClass, Bytes data);
    void PutValueInformation(TextSink& out, std::uint32_t informationClass, Bytes data,
                             std::optional<WireText> value = {});
    void PutSetInformation(TextSink& out, std::uint32_t informationClass, Bytes data);

private:
    /// The class's name in its place, and what `putFields` writes.
    template <typename Function>
    void PutWithClass(TextSink& out, std::string_view name, std::uint32_t informationClass,
                      Function&& putFields) const;
    void PutKeyFacts(TextSink& out, const KeyFacts& facts);
    void PutTime(TextSink& out, std::uint64_t time);

    DataStyle style_;
    EventTimeText time_;
};

/// The value's name, or (Default) for the one without a name.
void PutValueName(TextSink& out, WireText name);
void PutQuoted(TextSink& out, WireText text);

/// The strings of a REG_MULTI_SZ, one after the other. The empty string that ends the list is none.
template <typename Function>
void ForEachString(Bytes data, Function&& function) {
    WireText rest(data.data(), data.size() / sizeof(char16_t));
    while (!rest.empty() && rest[0] != 0) {
        std::size_t length = 0;
        while (length < rest.size() && rest[length] != 0) {
            ++length;
        }
        function(rest.Prefix(length));
        rest = rest.Substring(length < rest.size() ? length + 1 : length);
    }
}

/// The text of a REG_SZ without the zeros at its end.
WireText StringData(Bytes data);

/// The number that data of this type holds, when it has the size of one.
std::optional<std::uint64_t> NumberData(std::uint32_t type, Bytes data);

}  // namespace zpregmon
