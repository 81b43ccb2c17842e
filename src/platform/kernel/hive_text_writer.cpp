// Writing hives as text.
#include "platform/kernel/hive_text.h"
#include "platform/kernel/key_security.h"

#include <algorithm>
#include <cstring>

namespace platform {

namespace {

constexpr std::u16string_view kLineEnd = u"\r\n";
/// Lines of hexadecimal numbers are broken before they get longer.
constexpr std::size_t kLongestLine = 80;

void AppendHex(std::u16string& text, std::uint64_t number, int digits) {
    constexpr char16_t kDigits[] = u"0123456789abcdef";
    while (digits-- > 0)
        text += kDigits[number >> 4 * digits & 0xF];
}

/// The letter that stands for a character that would break a line or a text; 0 for others.
char16_t EscapeLetter(char16_t character) {
    switch (character) {
        case u'\n':
            return u'n';
        case u'\r':
            return u'r';
        case u'\0':
            return u'0';
        default:
            return 0;
    }
}

class HiveWriter {
public:
    std::u16string Write(const KeyNode& key) {
        text_ += u"Windows Registry Editor Version 5.00";
        text_ += kLineEnd;
        WriteKey(key, EditorPath(key));
        return std::move(text_);
    }

private:
    /// The path by which editors know the key.
    static std::u16string EditorPath(const KeyNode& key) {
        if (key.Parent() == nullptr) return u"HKEY_REGISTRY";
        if (key.Depth() == 1) {
            if (key.Name() == u"MACHINE") return u"HKEY_LOCAL_MACHINE";
            if (key.Name() == u"USER") return u"HKEY_USERS";
        }
        return PathBelow(EditorPath(*key.Parent()), key.Name());
    }

    static std::u16string PathBelow(std::u16string path, std::u16string_view name) {
        path += u'\\';
        for (const char16_t character : name) {
            if (const char16_t letter = EscapeLetter(character)) {
                path += {u'\\', u'\\', letter};
            } else {
                path += character;
            }
        }
        return path;
    }

    void WriteKey(const KeyNode& key, const std::u16string& path) {
        text_ += kLineEnd;
        text_ += u'[';
        text_ += path;
        text_ += u']';
        text_ += kLineEnd;
        WriteAnnotations(key);
        for (std::size_t index = 0; const KeyValue* value = key.ValueAt(index); ++index) {
            WriteValue(*value);
        }
        for (std::size_t index = 0; const KeyNode* subkey = key.SubkeyAt(index); ++index) {
            if (!subkey->IsVolatile()) WriteKey(*subkey, PathBelow(path, subkey->Name()));
        }
    }

    void WriteAnnotations(const KeyNode& key) {
        if (!key.Class().empty()) {
            text_ += u";@class=";
            WriteQuoted(key.Class());
            text_ += kLineEnd;
        }
        if (key.IsLink()) {
            text_ += u";@link";
            text_ += kLineEnd;
        }
        text_ += u";@written=";
        AppendHex(text_, static_cast<std::uint64_t>(key.LastWriteTime()), 16);
        text_ += kLineEnd;
        text_ += u";@security=hex:";
        WriteBytes(key.Security()->Descriptor().bytes, false);
        text_ += kLineEnd;
    }

    void WriteValue(const KeyValue& value) {
        lineStart_ = text_.size();
        if (value.name.empty()) {
            text_ += u'@';
        } else {
            WriteQuoted(value.name);
        }
        text_ += u'=';
        if (IsPlainString(value)) {
            WriteQuoted(TextOf(value));
        } else if (value.type == REG_DWORD && value.data.size() == sizeof(ULONG)) {
            ULONG number = 0;
            std::memcpy(&number, value.data.data(), sizeof(number));
            text_ += u"dword:";
            AppendHex(text_, number, 8);
        } else {
            WriteHexValue(value);
        }
        text_ += kLineEnd;
    }

    void WriteHexValue(const KeyValue& value) {
        text_ += u"hex";
        if (value.type != REG_BINARY) {
            int digits = 1;
            while (digits < 8 && value.type >> 4 * digits != 0)
                ++digits;
            text_ += u'(';
            AppendHex(text_, value.type, digits);
            text_ += u')';
        }
        text_ += u':';
        WriteBytes(value.data, true);
    }

    void WriteBytes(std::span<const std::byte> bytes, bool mayBreak) {
        for (std::size_t index = 0; index < bytes.size(); ++index) {
            AppendHex(text_, std::to_integer<unsigned>(bytes[index]), 2);
            if (index + 1 == bytes.size()) return;
            text_ += u',';
            if (mayBreak && text_.size() - lineStart_ > kLongestLine - 4) {
                text_ += u'\\';
                text_ += kLineEnd;
                lineStart_ = text_.size();
                text_ += u"  ";
            }
        }
    }

    void WriteQuoted(std::u16string_view text) {
        text_ += u'"';
        for (const char16_t character : text) {
            const char16_t letter = EscapeLetter(character);
            if (letter != 0 || character == u'\\' || character == u'"') text_ += u'\\';
            text_ += letter != 0 ? letter : character;
        }
        text_ += u'"';
    }

    /// The characters of a string value, without the terminator.
    static std::u16string TextOf(const KeyValue& value) {
        std::u16string text(value.data.size() / sizeof(char16_t) - 1, u'\0');
        std::memcpy(text.data(), value.data.data(), text.size() * sizeof(char16_t));
        return text;
    }

    /// Whether quotes around its text say everything of the value.
    static bool IsPlainString(const KeyValue& value) {
        const std::size_t size = value.data.size();
        if (value.type != REG_SZ || size < sizeof(char16_t) || size % sizeof(char16_t) != 0) {
            return false;
        }
        char16_t last = 0;
        std::memcpy(&last, value.data.data() + size - sizeof(last), sizeof(last));
        const std::u16string text = TextOf(value);
        return last == 0 && std::all_of(text.begin(), text.end(),
                                        [](char16_t character) { return character >= u' '; });
    }

    std::u16string text_;
    std::size_t lineStart_ = 0;
};

}  // namespace

std::u16string WriteHiveText(const KeyNode& key) {
    return HiveWriter().Write(key);
}

std::vector<std::byte> EncodeHiveText(std::u16string_view text) {
    constexpr char16_t kByteOrderMark = 0xFEFF;
    std::vector<std::byte> bytes(sizeof(kByteOrderMark) + text.size() * sizeof(char16_t));
    std::memcpy(bytes.data(), &kByteOrderMark, sizeof(kByteOrderMark));
    std::memcpy(bytes.data() + sizeof(kByteOrderMark), text.data(), text.size() * sizeof(char16_t));
    return bytes;
}

}  // namespace platform
