#pragma once

#include <array>
#include <bit>
#include <cstdint>

#include "orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// Counts the tiles of a depth that lie below a coordinate, which is counted from the root's low
/// face and less than 2^31: `coordinate / Traits::tileWidth(depth)`. For Traits<5, 5, 1> by a
/// product with the reciprocal, rounded up, in fixed point of 31 + ceil(log2 width) binary places:
/// exact, and never past 2^63 (Granlund and Montgomery, "Division by invariant integers using
/// multiplication", 1994).
template <class Traits> std::uint32_t tilesBelow(std::uint32_t coordinate, unsigned depth) {
    if constexpr (Traits::kBranch == 2) {
        return coordinate >> (30 - depth);
    } else {
        struct Divisor {
            std::uint64_t reciprocal;
            unsigned shift;
        };
        static constexpr auto kDivisors = [] {
            std::array<Divisor, Traits::kMaxDepth + 1> divisors{};
            for (unsigned d = 0; d < divisors.size(); ++d) {
                auto const width =
                    static_cast<std::uint64_t>(Traits::tileWidth(static_cast<int>(d)));
                auto const shift = 31 + static_cast<unsigned>(std::bit_width(width - 1));
                divisors[d] = {(std::uint64_t{1} << shift) / width + 1, shift};
            }
            return divisors;
        }();
        Divisor const& by = kDivisors[depth];
        return static_cast<std::uint32_t>(coordinate * by.reciprocal >> by.shift);
    }
}

}  // namespace ORV::TileTree3D::Internal
