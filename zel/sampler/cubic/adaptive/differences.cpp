#include "zel/sampler/cubic/adaptive/differences.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "zel/sampler/cubic/adaptive/sample.h"

namespace ORV::TileTree3D::Internal {

template <class Traits, class T>
GradientOf<T> adaptiveDifferences(CubicSource<Traits, T> const& source, AdaptiveMemo<T>& memo,
                                  TreeIndex const& tree, int3 const& lijk, float3 const& frac,
                                  int depth, T const& value) {
    constexpr float kStep = 1.0F / 64;
    using Register = RegisterOf<T>;
    auto const& tile = source.container.tile(tree);
    int const vdw = tile.voxelDataWidth();
    auto const width = static_cast<float>(vdw);
    int3 const llc = tile.tijk() + lijk * vdw;
    float3 const offset = source.topology.offset();
    Register slopes[3];
    for (int axis = 0; axis < 3; ++axis) {
        // The sampler rounds a place on the lattice to a float.
        auto const corner = static_cast<float>(llc[axis]);
        float const far = std::fabs(corner) + width,
                    spacing = std::nextafter(far, std::numeric_limits<float>::infinity()) - far;
        auto const rounded = [&](float place) {
            return static_cast<float>(static_cast<double>(width * place + corner) - llc[axis]) /
                   width;
        };
        // The part of the voxel that lies in the tile.
        auto const voxel = static_cast<float>(lijk[axis]);
        float const low = std::max(0.0F, -offset[axis] - voxel),
                    high = std::min(1.0F, Traits::kSamples - offset[axis] - voxel),
                    step = std::min(std::max(kStep, 2 * spacing / width), (high - low) / 4);
        // On a low face itself a sample is composed of fewer axes.
        float const middle = std::clamp(frac[axis], low + 1.25F * step, high - step);
        float const places[3] = {middle - step, middle, middle + step};
        Register values[3];
        float at[3];
        for (int n = 0; n < 3; ++n) {
            float3 place = frac;
            place[axis] = places[n];
            values[n] = RegisterTraits<T>::from(
                place[axis] == frac[axis]
                    ? value
                    : adaptiveValue<Traits, T, NoTrace>(source, memo, tree, lijk, place, depth));
            at[n] = rounded(places[n]);
        }
        float here = rounded(frac[axis]);
        if (!(at[0] < at[1] && at[1] < at[2])) {
            std::copy_n(places, 3, at);
            here = frac[axis];
        }
        Register const first = (values[1] - values[0]) / (at[1] - at[0]),
                       second = (values[2] - values[1]) / (at[2] - at[1]);
        slopes[axis] =
            first + (second - first) / (at[2] - at[0]) * ((here - at[0]) + (here - at[1]));
    }
    return gradientOf(slopes[0], slopes[1], slopes[2], source.voxelsPerUnit(tree.depth));
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_DIFFERENCES, );

}  // namespace ORV::TileTree3D::Internal
