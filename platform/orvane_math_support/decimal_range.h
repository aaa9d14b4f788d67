#pragma once

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <system_error>

namespace Orvane::Math {

/// Whether a decimal number that is not in the range of its type is below it, not above:
/// std::from_chars does not tell the two apart.
inline bool isBelowRange(std::string_view text) {
    auto const exponentAt = text.find_first_of("eE");
    std::string_view const digits = text.substr(0, exponentAt);
    auto const first = digits.find_first_of("123456789");
    if (first == std::string_view::npos) return true;
    auto const point = std::min(digits.find('.'), digits.size());
    std::int64_t power = static_cast<std::int64_t>(point) - static_cast<std::int64_t>(first);
    if (exponentAt != std::string_view::npos) {
        std::string_view exponent = text.substr(exponentAt + 1);
        if (exponent.starts_with('+')) exponent.remove_prefix(1);
        std::int32_t value = 0;
        auto const [end, error] =
            std::from_chars(exponent.data(), exponent.data() + exponent.size(), value);
        // More than any number of digits can make up for.
        if (error != std::errc()) return exponent.starts_with('-');
        power += value;
    }
    return power < 0;
}

}  // namespace Orvane::Math
