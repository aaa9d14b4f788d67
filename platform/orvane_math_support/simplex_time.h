#pragma once

#include "zel_platform/orvane_math_support/simplex_lattice.h"

#include <bit>
#include <cstdint>

namespace Orvane::Math::Simplex {

/// The point (0, 0, 0, time), split into a lattice cell and the place within it. Positions are
/// added to the place alone, so that they keep their precision at any time. Three lattice
/// coordinates of a point on the time axis are equal: `Xyz` stands for each of them.
struct TimePlace {
    double latticeXyz, latticeW;   // place in the cell, 0..1; kLatticeLimit for a time outside
    std::uint64_t cellXyz, cellW;  // two's complement
};

/// Truncates a number to its 24 leading bits, the precision of a float.
inline double cutToFloat(double a) {
    return std::bit_cast<double>(std::bit_cast<std::uint64_t>(a) & ~std::uint64_t{0x1fffffff});
}

/// Writes a number of 48 bits as two floats whose sum it is.
inline void splitInTwo(double a, float* out) {
    double const high = cutToFloat(a);
    out[0] = static_cast<float>(high);
    out[1] = static_cast<float>(a - high);
}

/// Writes a place as 16 floats: the two places in the cell, each as the sum of two floats; then the
/// two cells, each as four digits of 16 bits, lowest first, of which the highest has the sign; then
/// four zeros.
inline void writeTimeTable(TimePlace const& place, float* table) {
    splitInTwo(place.latticeXyz, table);
    splitInTwo(place.latticeW, table + 2);
    auto const digits = [](std::uint64_t cell, float* out) {
        for (int i = 0; i < 3; ++i) out[i] = static_cast<float>(cell >> (16 * i) & 0xffff);
        out[3] = static_cast<float>(static_cast<std::int64_t>(cell) >> 48);
    };
    digits(place.cellXyz, table + 4);
    digits(place.cellW, table + 8);
    for (int i = 12; i < 16; ++i) table[i] = 0;
}

/// Reads a table that writeTimeTable() wrote. Any other 16 floats are read without undefined
/// behaviour, too, since no float is cast to an integer.
inline TimePlace readTimeTable(float const* table) {
    auto const at = [&](int i) { return static_cast<double>(table[i]); };
    auto const number = [&](int i) { return at(i) + at(i + 1); };
    auto const cell = [&](int i) {
        double const c = ((at(i + 3) * 0x1p16 + at(i + 2)) * 0x1p16 + at(i + 1)) * 0x1p16 + at(i);
        return std::bit_cast<std::uint64_t>(c + kCellShift) - kCellBias;
    };
    return {number(0), number(2), cell(4), cell(8)};
}

}  // namespace Orvane::Math::Simplex
