#pragma once

#include <algorithm>
#include <array>
#include <cmath>

#include "zel/sampler/cubic/adaptive/memo.h"
#include "zel/sampler/cubic/source.h"

namespace ORV::TileTree3D::Internal {

/// How many lattice units a fraction of a voxel is, rounded down. A fraction far outside 0 to 1,
/// which no position has, gives a number that cannot overflow, and NaN gives 0.
inline int latticeSteps(int width, float frac) {
    constexpr float kBound = 536870912.0F;
    float const steps = std::floor(static_cast<float>(width) * frac);
    return std::isnan(steps) ? 0 : static_cast<int>(std::clamp(steps, -kBound, kBound));
}

/// The working state of one sample on the adaptive path: its voxel, and the tiles around its
/// stencil.
template <class Traits, class T> struct AdaptiveState {
    using Tile = TileOf<Traits>;

    AdaptiveState(CubicSource<Traits, T> const& theSource, AdaptiveMemo<T>& theMemo,
                  Tile const& theTile, int3 const& theLijk, float3 const& theFrac, int limit)
        : source(theSource), memo(theMemo), tile(theTile), lijk(theLijk), frac(theFrac),
          depthLimit(limit), vdw(tile.voxelDataWidth()), tvw(tile.tileVoxelWidth()),
          llc(tile.tijk() + lijk * vdw), tijk(llc) {
        for (int axis = 0; axis < 3; ++axis) tijk[axis] += latticeSteps(vdw, frac[axis]);
    }

    CubicSource<Traits, T> const& source;
    AdaptiveMemo<T>& memo;
    Tile const& tile;
    int3 const lijk;
    float3 const frac;
    int const depthLimit;  ///< of the tiles that are read
    int const vdw, tvw;    ///< widths of a voxel and of the tile
    int3 const llc;        ///< the voxel's low corner
    int3 tijk;             ///< the lattice point of the sample

    // By slot of a TileCube, where they were fetched. The sentinel may be one of the tiles.
    std::array<Tile const*, 8> tiles{};
    std::array<T const*, 8> samples{};
    std::array<short const*, 8> flags{};
    int3 origin;       ///< the low corner of the tile over tijk
    int3 originIndex;  ///< and its indices in the cube
    bool atJump = false;
};

}  // namespace ORV::TileTree3D::Internal
