#pragma once

#include <algorithm>
#include <string>
#include <string_view>

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

/// The text for an error message: at most `most` bytes of it, whole characters, with "..." for the
/// rest. Of a text that is not UTF-8, all bytes beyond ASCII become '?'.
inline std::string shortened(std::string_view text, std::size_t most = 60) {
    std::size_t size = std::min(text.size(), most);
    while (size > 0 && size < text.size() &&
           (static_cast<unsigned char>(text[size]) & 0xc0) == 0x80)
        --size;
    std::string shown(text.substr(0, size));
    if (!isUtf8(shown))
        for (char& c : shown)
            if (static_cast<unsigned char>(c) >= 0x80) c = '?';
    return size < text.size() ? shown + "..." : shown;
}

}  // namespace zel::detail
