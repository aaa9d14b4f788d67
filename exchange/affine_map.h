#pragma once

#include <cmath>

#include "vdb.h"

namespace zel::detail {

inline constexpr AffineMap kIdentity{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};

/// Of the matrix without its last column.
inline double determinant(AffineMap const& m) {
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) -
           m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

inline bool isFinite(AffineMap const& map) {
    bool result = true;
    for (auto const& row : map)
        for (double const number : row) result = result && std::isfinite(number);
    return result;
}

/// Not finite if the map has no inverse.
inline AffineMap inverse(AffineMap const& map) {
    AffineMap result;
    for (std::size_t r = 0; r < 3; ++r)
        for (std::size_t c = 0; c < 3; ++c) {
            std::size_t const r1 = (r + 1) % 3, r2 = (r + 2) % 3, c1 = (c + 1) % 3,
                              c2 = (c + 2) % 3;
            result[c][r] = map[r1][c1] * map[r2][c2] - map[r1][c2] * map[r2][c1];
        }
    double const divisor = determinant(map);
    for (auto& row : result)
        for (std::size_t c = 0; c < 3; ++c) row[c] /= divisor;
    for (auto& row : result)
        row[3] = -(row[0] * map[0][3] + row[1] * map[1][3] + row[2] * map[2][3]);
    return result;
}

}  // namespace zel::detail
