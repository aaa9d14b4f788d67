#pragma once

#include <array>
#include <cstdint>

#include "orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// Counts the tiles of a depth from 1 on that lie below a coordinate, which is counted from the
/// root's low face or from that of a tile: `coordinate / Traits::tileWidth(depth)`. For
/// Traits<5, 5, 1> by a product with the reciprocal, rounded up, in 59-bit fixed point: exact for
/// coordinates below 2^31 and widths below 2^28 (Granlund and Montgomery, "Division by invariant
/// integers using multiplication", 1994).
template <class Traits> std::uint32_t tilesBelow(std::uint32_t coordinate, int depth) {
    if constexpr (Traits::kBranch == 2) {
        return coordinate >> (30 - depth);
    } else {
        constexpr int kShift = 59;
        static constexpr auto kReciprocals = [] {
            std::array<std::uint64_t, Traits::kMaxDepth + 1> reciprocals{};
            for (int d = 1; d <= Traits::kMaxDepth; ++d)
                reciprocals[static_cast<unsigned>(d)] =
                    (std::uint64_t{1} << kShift) /
                        static_cast<std::uint64_t>(Traits::tileWidth(d)) +
                    1;
            return reciprocals;
        }();
        return static_cast<std::uint32_t>(
            (coordinate * kReciprocals[static_cast<unsigned>(depth)]) >> kShift);
    }
}

}  // namespace ORV::TileTree3D::Internal
