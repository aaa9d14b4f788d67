#pragma once

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

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
        // Unlike std::from_chars, strtof tells numbers too small from numbers too large. No decimal
        // point is left of it in another locale, but the exponent or the digits tell the same.
        std::string digits(word);
        std::size_t const exponent = digits.find_first_of("eE");
        double scale =
            exponent == std::string::npos ? 0 : std::strtod(digits.c_str() + exponent + 1, nullptr);
        std::string_view const mantissa = std::string_view(digits).substr(0, exponent);
        std::size_t const point = std::min(mantissa.find('.'), mantissa.size());
        std::size_t const first = mantissa.find_first_of("123456789");
        // The decimal exponent of the first digit that is not 0.
        scale += first < point ? static_cast<double>(point - first) - 1
                               : static_cast<double>(point) - static_cast<double>(first);
        if (scale > 0) return "wanted a number in the range of floats";
        number = word[0] == '-' ? -0.0F : 0.0F;
    }
    return nullptr;
}

/// The room that formatFloat() needs.
constexpr std::size_t kMostFloatDigits = 16;

/// Writes the shortest text that reads back to the same float. Returns its end.
inline char* formatFloat(char* to, float number) {
    return std::to_chars(to, to + kMostFloatDigits, number).ptr;
}

}  // namespace zel::detail
