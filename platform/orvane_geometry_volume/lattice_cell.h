#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>

#include "zel_platform/orvane_geometry_volume/traits.h"

namespace ORV::TileTree3D::Internal {

/// Computes `coordinate / Traits::tileWidth(depth)`, for a coordinate that is counted from the
/// root's low face and less than 2^31: the number of tiles of that depth below it along an axis.
/// For Traits<5, 5, 1> the division is a product with the reciprocal, rounded up, in fixed point
/// with 31
/// + ceil(log2 width) binary places, which is exact and takes a product of 32 by 32 bits (Granlund
/// and Montgomery, "Division by invariant integers using multiplication", 1994).
template <class Traits> class TilesBelow {
public:
    explicit TilesBelow(unsigned depth) : m_by(kDivisors[depth]) {}

    std::uint32_t operator()(std::uint32_t coordinate) const {
        if constexpr (Traits::kBranch == 2)
            return coordinate >> m_by.shift;
        else
            return static_cast<std::uint32_t>(std::uint64_t{coordinate} * m_by.reciprocal >>
                                              m_by.shift);
    }

private:
    struct Divisor {
        std::uint32_t reciprocal, shift;
    };
    static constexpr auto kDivisors = [] {
        std::array<Divisor, Traits::kMaxDepth + 1> divisors{};
        for (unsigned d = 0; d < divisors.size(); ++d) {
            auto const width = static_cast<std::uint64_t>(Traits::tileWidth(static_cast<int>(d)));
            auto const log = static_cast<unsigned>(std::bit_width(width - 1));
            // The reciprocal is less than 2^32, since no width of Traits<5, 5, 1> is a power of
            // two.
            if constexpr (Traits::kBranch == 2)
                divisors[d] = {0, log};
            else
                divisors[d] = {
                    static_cast<std::uint32_t>((std::uint64_t{1} << (31 + log)) / width + 1),
                    31 + log};
        }
        return divisors;
    }();

    Divisor m_by;
};

template <class Traits> std::uint32_t tilesBelow(std::uint32_t coordinate, unsigned depth) {
    return TilesBelow<Traits>(depth)(coordinate);
}

/// The lattice coordinate of the low face of a tile that has `below` tiles of the same width below
/// it along an axis.
template <class Traits> std::int32_t cornerOf(std::uint32_t below, std::uint32_t width) {
    return static_cast<std::int32_t>(below * width +
                                     static_cast<std::uint32_t>(Traits::kRootCorner));
}

/// Whether a cube contains a lattice point.
inline bool covers(int3 const& corner, std::uint32_t width, int3 const& p) {
    auto const above = [](std::int32_t c, std::int32_t low) {
        return static_cast<std::uint32_t>(c) - static_cast<std::uint32_t>(low);
    };
    // One comparison for all axes, since each of three branches would be mispredicted now and then.
    return std::max({above(p.x, corner.x), above(p.y, corner.y), above(p.z, corner.z)}) < width;
}

}  // namespace ORV::TileTree3D::Internal
