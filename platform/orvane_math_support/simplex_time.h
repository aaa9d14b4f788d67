#pragma once

#include "orvane_math_support/simplex_kernel.h"

#include <bit>
#include <cstdint>

namespace Orvane::Math::Simplex {

/// The point (0, 0, 0, time) split into a lattice cell and the place within it, which keeps
/// positions near the origin of the lattice at any time. Three lattice coordinates of a point on
/// the time axis are equal: `xyz` stands for each of them.
struct TimePlace {
    double latticeXyz, latticeW;   // in the cell, 0..1; kLatticeLimit for a time outside
    double offsetXyz, offsetW;     // the same place in Cartesian coordinates
    std::uint64_t cellXyz, cellW;  // two's complement
};

/// Keeps what two floats hold, 48 bits. Cut off in the representation, not by going to float and
/// back: g++ 12 drops such a round trip where it vectorises, and the bits would depend on that.
inline double splitInTwo(double a, float& upper, float& lower) {
    auto const cut = [](double v) {
        return std::bit_cast<double>(std::bit_cast<std::uint64_t>(v) & ~std::uint64_t{0x1fffffff});
    };
    double const high = cut(a), low = cut(a - high);
    upper = static_cast<float>(high);
    lower = static_cast<float>(low);
    return high + low;
}

inline TimePlace placeTime(float time) {
    double const t = static_cast<double>(time), skewed = t * kSkew;
    Double4 const lattice = {Double2{skewed, skewed}, Double2{skewed, t + skewed}};
    if (!(ScalarCells::size(lattice) < kLatticeLimit)) {
        double const outside = t - t + kLatticeLimit;  // NaN if the time is not finite
        return {outside, outside, 0, 0, 0, 0};
    }
    Double4 whole;
    Long4 const cell = ScalarCells::cell(lattice, whole);
    Double4 const place = lattice - whole;
    float upper, lower;
    double const xyz = splitInTwo(place[2], upper, lower), w = splitInTwo(place[3], upper, lower);
    double const unskew = (3 * xyz + w) * kUnskew;
    return {xyz,
            w,
            splitInTwo(xyz - unskew, upper, lower),
            splitInTwo(w - unskew, upper, lower),
            cell.zw[0],
            cell.zw[1]};
}

/// Table: the four numbers, each as the sum of two floats, then the two cells, four digits of 16
/// bits each, lowest first; the highest has the sign.
inline void writeTimeTable(TimePlace const& place, float* table) {
    double const numbers[4] = {place.latticeXyz, place.latticeW, place.offsetXyz, place.offsetW};
    for (int i = 0; i < 4; ++i) splitInTwo(numbers[i], table[2 * i], table[2 * i + 1]);
    auto const digits = [](std::uint64_t cell, float* out) {
        for (int i = 0; i < 3; ++i) out[i] = static_cast<float>(cell >> (16 * i) & 0xffff);
        out[3] = static_cast<float>(static_cast<std::int64_t>(cell) >> 48);
    };
    digits(place.cellXyz, table + 8);
    digits(place.cellW, table + 12);
}

/// Any 16 floats are good to read: no float is cast to an integer.
inline TimePlace readTimeTable(float const* table) {
    auto const at = [&](int i) { return static_cast<double>(table[i]); };
    auto const number = [&](int i) { return at(i) + at(i + 1); };
    auto const cell = [&](int i) {
        double const c = ((at(i + 3) * 0x1p16 + at(i + 2)) * 0x1p16 + at(i + 1)) * 0x1p16 + at(i);
        constexpr double shift = 0x1.8p52;  // leaves an integer within 2^51 in the low bits
        return std::bit_cast<std::uint64_t>(c + shift) - std::bit_cast<std::uint64_t>(shift);
    };
    return {number(0), number(2), number(4), number(6), cell(8), cell(12)};
}

}  // namespace Orvane::Math::Simplex
