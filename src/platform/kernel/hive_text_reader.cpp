// Reading hives from text.
#include "platform/kernel/hive_text.h"
#include "platform/kernel/key_security.h"
#include "platform/kernel/text.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace platform {

namespace {

constexpr std::u16string_view kHeader = u"Windows Registry Editor Version 5.00";
constexpr std::u16string_view kLineEnds = u"\r\n";
constexpr std::u16string_view kBlanks = u" \t";

using KeyPath = std::vector<std::u16string>;

/// What an escape letter stands for.
std::optional<char16_t> Unescape(char16_t letter) {
    switch (letter) {
        case u'n':
            return u'\n';
        case u'r':
            return u'\r';
        case u'0':
            return u'\0';
        default:
            return std::nullopt;
    }
}

std::optional<unsigned> HexDigit(char16_t character) {
    if (character >= u'0' && character <= u'9') return character - u'0';
    if (character >= u'a' && character <= u'f') return character - u'a' + 10U;
    if (character >= u'A' && character <= u'F') return character - u'A' + 10U;
    return std::nullopt;
}

/// Splits a path at single backslashes; two begin an escape, three do both.
std::optional<KeyPath> SplitPath(std::u16string_view text) {
    KeyPath path(1);
    while (!text.empty()) {
        const std::size_t slashes = std::min(text.find_first_not_of(u'\\'), text.size());
        if (slashes == 1 || slashes == 3) path.emplace_back();
        text.remove_prefix(slashes);
        if (slashes > 3 || text.empty()) return std::nullopt;
        std::optional<char16_t> character = text.front();
        if (slashes >= 2) character = Unescape(text.front());
        if (!character) return std::nullopt;
        path.back() += *character;
        text.remove_prefix(1);
    }
    const bool good = path.size() <= kMaxKeyDepth &&
                      std::all_of(path.begin(), path.end(), [](const std::u16string& name) {
                          return !name.empty() && name.size() <= kMaxKeyNameCharacters;
                      });
    return good ? std::optional(std::move(path)) : std::nullopt;
}

/// A reader of one text. Its steps return false after Fail.
class HiveReader {
public:
    HiveReader(std::u16string_view text, HiveTextError& error) : text_(text), error_(error) {}

    KeyNodeRef Read() {
        if (!Take(kHeader) || !AtLineEnd()) {
            Fail("the line \"" + ToUtf8(kHeader) + "\"");
            error_.status = STATUS_NOT_REGISTRY_FILE;
            return nullptr;
        }
        for (SkipEmptyLines(); position_ < text_.size(); SkipEmptyLines()) {
            if (!ReadEntry()) return nullptr;
        }
        if (root_ == nullptr && !Fail("a key")) return nullptr;
        // Only now: adding to a key is a change of it.
        for (const auto& [key, time] : writeTimes_)
            key->SetLastWriteTime(time);
        return root_;
    }

private:
    bool Fail(std::string expected) {
        const std::u16string_view before = text_.substr(0, position_);
        error_ = {STATUS_REGISTRY_CORRUPT,
                  1 + static_cast<std::size_t>(std::count(before.begin(), before.end(), u'\n')),
                  std::move(expected)};
        return false;
    }

    char16_t Next() const { return position_ < text_.size() ? text_[position_] : u'\0'; }
    bool Take(std::u16string_view what) {
        if (text_.substr(position_, what.size()) != what) return false;
        position_ += what.size();
        return true;
    }
    void Skip(std::u16string_view what) {
        position_ = std::min(text_.find_first_not_of(what, position_), text_.size());
    }
    void SkipEmptyLines() { Skip(u" \t\r\n"); }
    /// Also skips blanks before the end.
    bool AtLineEnd() {
        Skip(kBlanks);
        return position_ == text_.size() || kLineEnds.find(Next()) != kLineEnds.npos;
    }
    bool EndLine() { return AtLineEnd() || Fail("the end of the line"); }
    std::u16string_view TakeLine() {
        const std::size_t start = position_;
        position_ = std::min(text_.find_first_of(kLineEnds, position_), text_.size());
        const std::u16string_view line = text_.substr(start, position_ - start);
        return line.substr(0, line.find_last_not_of(kBlanks) + 1);
    }

    bool ReadEntry() {
        switch (Next()) {
            case u'[':
                return ReadKey();
            case u';':
                return ReadComment();
            case u'"':
            case u'@':
                return ReadValue();
            default:
                return Fail("a key, a comment or a value");
        }
    }

    bool ReadKey() {
        const std::size_t start = position_;
        std::u16string_view line = TakeLine();
        const bool isKey = line.size() > 2 && line.ends_with(u']') && line[1] != u'-';
        std::optional<KeyPath> path;
        if (isKey) path = SplitPath(line.substr(1, line.size() - 2));
        position_ = path ? position_ : start;
        if (!path) return Fail("[path of a key]");
        if (root_ == nullptr) {
            root_ = std::make_shared<KeyNode>(u"", KeyNode::Kind{});
            rootPath_ = *path;
        }
        if (path->size() < rootPath_.size() ||
            !std::equal(rootPath_.begin(), rootPath_.end(), path->begin(), EqualIgnoringCase)) {
            position_ = start;
            return Fail("a key below the first one");
        }
        key_ = root_.get();
        for (std::size_t level = rootPath_.size(); level < path->size(); ++level)
            Descend((*path)[level]);
        return true;
    }

    void Descend(const std::u16string& name) {
        KeyNode* subkey = key_->FindSubkey(name);
        if (subkey == nullptr) {
            subkey = &key_->AddSubkey(name, {});
            subkey->SetSecurity(nullptr);
        }
        key_ = subkey;
    }

    bool ReadComment() {
        if (!Take(u";@") || key_ == nullptr) {
            TakeLine();
            return true;
        }
        if (Take(u"link")) {
            key_->MakeLink();
            return EndLine();
        }
        if (Take(u"class=")) return ReadClass();
        if (Take(u"written=")) return ReadWriteTime();
        if (Take(u"security=hex:")) return ReadSecurity();
        return Fail("link, class=, written= or security=hex:");
    }

    bool ReadClass() {
        std::u16string text;
        if (!ReadQuoted(text)) return false;
        key_->SetClass(text);
        return EndLine();
    }

    bool ReadWriteTime() {
        std::uint64_t time = 0;
        if (!ReadNumber(16, time)) return false;
        writeTimes_.emplace_back(key_, static_cast<LONGLONG>(time));
        return EndLine();
    }

    bool ReadSecurity() {
        std::vector<std::byte> bytes;
        DescriptorParts parts;
        if (!ReadBytes(bytes)) return false;
        const bool good = NT_SUCCESS(ReadDescriptor(bytes, parts)) && !parts.owner.empty() &&
                          !parts.group.empty();
        if (!good) return Fail("a security descriptor with owner and group");
        key_->SetSecurity(std::make_shared<const KeySecurity>(std::move(parts)));
        return EndLine();
    }

    bool ReadValue() {
        if (key_ == nullptr) return Fail("a key before values");
        std::u16string name;
        if (!Take(u"@") && !ReadQuoted(name)) return false;
        if (name.size() > kMaxValueNameCharacters) return Fail("a shorter name of a value");
        Skip(kBlanks);
        if (!Take(u"=")) return Fail("=");
        Skip(kBlanks);
        ULONG type = REG_NONE;
        std::vector<std::byte> data;
        if (!ReadData(type, data)) return false;
        key_->SetValue(name, type, std::move(data));
        return EndLine();
    }

    bool ReadData(ULONG& type, std::vector<std::byte>& data) {
        if (Next() == u'"') {
            std::u16string text;
            type = REG_SZ;
            if (!ReadQuoted(text)) return false;
            const auto* bytes = reinterpret_cast<const std::byte*>(text.c_str());
            data.assign(bytes, bytes + (text.size() + 1) * sizeof(char16_t));
            return true;
        }
        std::uint64_t number = 0;
        if (Take(u"dword:")) {
            type = REG_DWORD;
            if (!ReadNumber(8, number)) return false;
            const auto* bytes = reinterpret_cast<const std::byte*>(&number);
            data.assign(bytes, bytes + sizeof(ULONG));
            return true;
        }
        if (!Take(u"hex")) return Fail("a quoted text, dword: or hex");
        number = REG_BINARY;
        if (Take(u"(") && !(ReadNumber(8, number) && (Take(u")") || Fail(")")))) return false;
        type = static_cast<ULONG>(number);
        return Take(u":") ? ReadBytes(data) : Fail(":");
    }

    /// One to `most` hexadecimal digits.
    bool ReadNumber(int most, std::uint64_t& number) {
        int digits = 0;
        number = 0;
        for (; digits < most; ++digits, ++position_) {
            const auto digit = HexDigit(Next());
            if (!digit) break;
            number = number << 4 | *digit;
        }
        return digits != 0 || Fail("a hexadecimal number");
    }

    /// Two-digit numbers between commas, over several lines where a backslash ends one.
    bool ReadBytes(std::vector<std::byte>& bytes) {
        while (!AtLineEnd()) {
            if (Take(u"\\")) {
                if (!EndLine()) return false;
                SkipEmptyLines();
                continue;
            }
            std::uint64_t number = 0;
            if (!ReadNumber(2, number)) return false;
            bytes.push_back(static_cast<std::byte>(number));
            if (!Take(u",") && !AtLineEnd()) return Fail(",");
        }
        return true;
    }

    bool ReadQuoted(std::u16string& text) {
        if (!Take(u"\"")) return Fail("\"");
        while (position_ < text_.size()) {
            char16_t character = text_[position_++];
            if (character == u'"') return true;
            if (character == u'\\') {
                const char16_t escaped = Next();
                const bool isItself = escaped == u'\\' || escaped == u'"';
                const auto unescaped = isItself ? std::optional(escaped) : Unescape(escaped);
                if (!unescaped) return Fail("\\, \", n, r or 0 behind a backslash");
                character = *unescaped;
                ++position_;
            }
            text += character;
        }
        return Fail("\" at the end of the text");
    }

    const std::u16string_view text_;
    HiveTextError& error_;
    std::size_t position_ = 0;
    KeyNodeRef root_;
    KeyPath rootPath_;
    KeyNode* key_ = nullptr;
    std::vector<std::pair<KeyNode*, LONGLONG>> writeTimes_;
};

}  // namespace

KeyNodeRef ReadHiveText(std::u16string_view text, HiveTextError& error) {
    return HiveReader(text, error).Read();
}

std::u16string DecodeHiveText(std::span<const std::byte> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    constexpr std::string_view kUtf16Mark = "\xFF\xFE";
    constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
    if (!text.starts_with(kUtf16Mark)) {
        return ToUtf16(text.starts_with(kUtf8Mark) ? text.substr(kUtf8Mark.size()) : text);
    }
    std::u16string units((text.size() - kUtf16Mark.size()) / sizeof(char16_t), u'\0');
    text.substr(kUtf16Mark.size())
        .copy(reinterpret_cast<char*>(units.data()), units.size() * sizeof(char16_t));
    return units;
}

}  // namespace platform
