#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

// Numbers as bytes.
namespace zel::detail {

/// The unsigned integer of a byte order at any address. Compiles to a load, and a swap if need be.
template <class Integer> Integer loadInteger(std::byte const* bytes, bool isBigEndian) {
    Integer value = 0;
    for (std::size_t i = 0; i < sizeof value; ++i) {
        std::size_t const shift = 8 * (isBigEndian ? sizeof value - 1 - i : i);
        value = static_cast<Integer>(
            value | static_cast<Integer>(std::to_integer<Integer>(bytes[i]) << shift));
    }
    return value;
}
inline float loadFloat(std::byte const* bytes, bool isBigEndian) {
    return std::bit_cast<float>(loadInteger<std::uint32_t>(bytes, isBigEndian));
}
inline double loadDouble(std::byte const* bytes, bool isBigEndian) {
    return std::bit_cast<double>(loadInteger<std::uint64_t>(bytes, isBigEndian));
}

/// The nearest float, which may be an infinity. A cast alone is undefined beyond the largest float.
inline float nearestFloat(double value) {
    constexpr double kLargest = std::numeric_limits<float>::max();
    constexpr double kRoundsToInfinity = 0x1.ffffffp127;  // half a step above
    if (std::fabs(value) >= kRoundsToInfinity)
        value = std::copysign(std::numeric_limits<double>::infinity(), value);
    else if (std::fabs(value) > kLargest)
        value = std::copysign(kLargest, value);
    return static_cast<float>(value);
}

}  // namespace zel::detail
