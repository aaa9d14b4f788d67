#pragma once

#include <algorithm>
#include <string>
#include <string_view>

// Names and texts as paths and messages show them.
namespace zel::detail {

/// Whether a text is valid UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
inline bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        auto const byte = [&](std::size_t at) {
            return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U;
        };
        unsigned const lead = byte(i);
        unsigned const length = lead < 0x80                    ? 1
                                : lead >= 0xc2 && lead <= 0xdf ? 2
                                : lead >= 0xe0 && lead <= 0xef ? 3
                                : lead >= 0xf0 && lead <= 0xf4 ? 4
                                                               : 0;
        if (length == 0) return false;
        unsigned const second = byte(i + 1);
        unsigned const least = lead == 0xe0 ? 0xa0 : lead == 0xf0 ? 0x90 : 0x80;
        unsigned const most = lead == 0xed ? 0x9f : lead == 0xf4 ? 0x8f : 0xbf;
        if (length > 1 && (second < least || second > most)) return false;
        for (unsigned k = 2; k < length; ++k)
            if ((byte(i + k) & 0xc0) != 0x80) return false;
        i += length;
    }
    return true;
}

/// A name in a JSON pointer, with its '/'.
inline void appendPointer(std::string& path, std::string_view name) {
    path += '/';
    for (char const c : name) {
        if (c == '/')
            path += "~1";
        else if (c == '~')
            path += "~0";
        else
            path += c;
    }
}

/// Appends a character of a text, with the escape of JSON if it is a control character.
inline void appendVisible(std::string& text, char c) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    auto const code = static_cast<unsigned char>(c);
    if (code >= 0x20) {
        text += c;
        return;
    }
    text += "\\u00";
    text += kDigits[code >> 4];
    text += kDigits[code & 15];
}

/// The text for an error message: at most `most` bytes of it, whole characters, with "..." for the
/// rest. Of a text that is not UTF-8, all bytes beyond ASCII become '?'.
inline std::string shortened(std::string_view text, std::size_t most = 60) {
    std::size_t size = std::min(text.size(), most);
    while (size > 0 && size < text.size() &&
           (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80)
        --size;
    bool const isText = isUtf8(text.substr(0, size));
    std::string shown;
    for (char const c : text.substr(0, size))
        appendVisible(shown, isText || static_cast<unsigned char>(c) < 0x80 ? c : '?');
    return size < text.size() ? shown + "..." : shown;
}

}  // namespace zel::detail
