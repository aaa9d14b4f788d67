#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <system_error>

#include "zel_platform/orvane_math_support/decimal_range.h"

// Numbers as text, in every locale with a decimal point.
namespace zel::detail {

/// Reads a float. Returns what is wrong, or null.
inline char const* parseFloat(std::string_view word, float& number) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-') word.remove_prefix(1);
    char const* const end = word.data() + word.size();
    auto const [stop, error] = std::from_chars(word.data(), end, number);
    // The syntax of the whole word comes first: "1e99x" is not a number, so its range is no error.
    if (error == std::errc::invalid_argument || stop != end) return "wanted a number";
    if (error == std::errc::result_out_of_range) {
        if (!Orvane::Math::isBelowRange(word)) return "wanted a number in the range of floats";
        number = word[0] == '-' ? -0.0F : 0.0F;
    }
    return nullptr;
}

/// The digits for which a header of a file that grows leaves room in place of its count.
constexpr std::size_t kMostCountDigits = std::numeric_limits<std::uint64_t>::digits10 + 1;

/// The room that formatFloat() needs.
constexpr std::size_t kMostFloatDigits = 16;

/// Writes the shortest text that reads back to the same float. Returns its end.
inline char* formatFloat(char* to, float number) {
    return std::to_chars(to, to + kMostFloatDigits, number).ptr;
}

/// The shortest text that reads back to the same number; or one of a std::chars_format and a
/// precision, of at most 20 digits.
template <class Number, class... Format> std::string numberText(Number number, Format... format) {
    char digits[32];
    return {digits, std::to_chars(digits, digits + sizeof digits, number, format...).ptr};
}

}  // namespace zel::detail
