#include "zel_platform/orvane_geometry_volume/volume_builder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <concepts>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/orvane_geometry_volume/messages.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"
#include "zel_platform/orvane_geometry_volume/tree_rollback.h"

namespace ORV::TileTree3D {

namespace {

/// A lattice coordinate, which may have a fraction, in world units; infinite beyond the range of
/// floats.
float toWorld(double lattice, float voxelSize) {
    constexpr double kMost = std::numeric_limits<float>::max();
    double const world = lattice * double{voxelSize};
    if (std::abs(world) > kMost)
        return std::copysign(std::numeric_limits<float>::infinity(), world < 0 ? -1.0f : 1.0f);
    return static_cast<float>(world);
}

template <class Traits> int3 childPosition(int slot) {
    constexpr int B = Traits::kBranch;
    return {slot % B, slot / B % B, slot / (B * B)};
}

/// A truth value for each child of a tile, by its slot in the child table.
template <class Traits> struct ChildFlags { bool wanted[Traits::kChildCount]; };

/// Calls the predicate for all children of a tile.
template <class Traits>
ChildFlags<Traits> wantedChildren(TileOf<Traits> const& tile, float voxelSize,
                                  RefinePredicate const& wanted) {
    ChildFlags<Traits> flags;
    int const depth = tile.depth() + 1;
    double const width = Traits::tileWidth(depth);
    for (int slot = 0; slot < Traits::kChildCount; ++slot) {
        int3 const child = childPosition<Traits>(slot);
        float3 low, high;
        for (int axis = 0; axis < 3; ++axis) {
            double const corner = tile.m_tijk[axis] + width * child[axis];
            low[axis] = toWorld(corner, voxelSize);
            high[axis] = toWorld(corner + width, voxelSize);
        }
        flags.wanted[slot] = wanted(low, high, depth);
    }
    return flags;
}

template <class Traits>
void refineDepth(Container<Traits>& container, int depth, RefinePredicate const& wanted) {
    constexpr long long kGrain = 16;
    long long const count = container.tileCount(depth);
    auto flags = Quern::Array<ChildFlags<Traits>>::forOverwrite(count);
    Internal::parallelRanges(count, kGrain, [&](long long first, long long last) {
        for (long long i = first; i < last; ++i)
            flags[i] =
                wantedChildren<Traits>(container.tile(i, depth), container.voxelSize(), wanted);
    });
    for (long long i = 0; i < count; ++i)
        for (int slot = 0; slot < Traits::kChildCount; ++slot)
            if (flags[i].wanted[slot]) container.addChild({i, depth}, childPosition<Traits>(slot));
}

/// Sets the samples of one tile. Finer tiles must be set before it: it restricts their samples.
template <class Traits, class T> class TileFill {
public:
    TileFill(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
             PositionFunction<T> const* function)
        : m_channel(channel), m_topology(topology), m_function(function) {}

    void run(TileOf<Traits> const& tile) const {
        T* const samples = m_channel.samples(tile.treeIndex());
        auto const places = samplePlaces(tile);
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) {
                    int3 const child{i * B / W, j * B / W, k * B / W};
                    T* const sample = samples + i + W * (j + W * k);
                    if (T const* const fine = m_channel.samples(tile.childTreeIndex(child)))
                        *sample = restricted(
                            fine, {i * B - child.x * W, j * B - child.y * W, k * B - child.z * W});
                    else if (m_function)
                        *sample = (*m_function)({places.x[i], places.y[j], places.z[k]});
                }
    }

private:
    static constexpr int W = Traits::kSamples;
    static constexpr int B = Traits::kBranch;

    /// The coordinates of a tile's samples along each axis, in world units.
    struct Places {
        float x[W], y[W], z[W];
    };

    Places samplePlaces(TileOf<Traits> const& tile) const {
        float3 const& offset = m_topology.offset();
        double const width = tile.voxelDataWidth();
        auto const place = [&](int corner, int voxel, float inVoxel) {
            return toWorld(corner + width * (voxel + double{inVoxel}),
                           m_topology.container().voxelSize());
        };
        Places places;
        for (int i = 0; i < W; ++i) {
            places.x[i] = place(tile.m_tijk.x, i, offset.x);
            places.y[i] = place(tile.m_tijk.y, i, offset.y);
            places.z[i] = place(tile.m_tijk.z, i, offset.z);
        }
        return places;
    }

    /// The sample of a coarse voxel, restricted from the fine voxels in it: B along each axis, from
    /// voxel `first` of the fine tile on.
    T restricted(T const* fine, int3 const& first) const {
        auto const count = [&](int axis) { return m_topology.offset()[axis] == 0 ? 1 : B; };
        int const nx = count(0), ny = count(1), nz = count(2);
        T const* const corner = fine + first.x + W * (first.y + W * first.z);
        if (nx * ny * nz == 1) return *corner;
        constexpr std::size_t kParts = std::same_as<T, float> ? 1 : 3;
        std::array<double, kParts> sums{};  // in double, since a sum of floats may overflow
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    auto const parts =
                        std::bit_cast<std::array<float, kParts>>(corner[x + W * (y + W * z)]);
                    for (std::size_t c = 0; c < kParts; ++c) sums[c] += double{parts[c]};
                }
        std::array<float, kParts> means;
        for (std::size_t c = 0; c < kParts; ++c)
            means[c] = static_cast<float>(sums[c] / (nx * ny * nz));
        return std::bit_cast<T>(means);
    }

    DataChannel<Traits, T>& m_channel;
    VoxelTopology<Traits> const& m_topology;
    PositionFunction<T> const* m_function;
};

template <class Traits, class T>
void fillDepths(char const* caller, DataChannel<Traits, T>& channel,
                VoxelTopology<Traits> const& topology, PositionFunction<T> const* function) {
    constexpr long long kGrain = 16;
    auto const& container = topology.container();
    if (!channel.fits(container))
        throw std::invalid_argument(Internal::message(caller, ": channel '", channel.name(),
                                                      "' is not sized to the topology as it is"));
    TileFill<Traits, T> const fill(channel, topology, function);
    for (int depth = std::min(channel.depth(), container.depth()); depth >= channel.minDepth();
         --depth)
        Internal::parallelRanges(channel.tileCount(depth), kGrain,
                                 [&](long long first, long long last) {
                                     for (long long i = first; i < last; ++i)
                                         fill.run(container.tile(i, depth));
                                 });
}

}  // namespace

template <class Traits>
void refineTree(Container<Traits>& container, int maxDepth, RefinePredicate const& wanted) {
    if (maxDepth < 0 || maxDepth > Traits::kMaxDepth)
        throw std::out_of_range(Internal::message("refineTree: depth ", maxDepth));
    Internal::Rollback rollback(container);
    container.addTile(0, 0, 0, 0);
    for (int depth = 0; depth < maxDepth; ++depth) refineDepth<Traits>(container, depth, wanted);
    rollback.keep();
}

template <class Traits, class T>
void fillChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
                 PositionFunction<T> const& function) {
    fillDepths<Traits, T>("fillChannel", channel, topology, &function);
}

template <class Traits, class T>
void restrictChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology) {
    fillDepths<Traits, T>("restrictChannel", channel, topology, nullptr);
}

template <class Traits, class T>
Volume<Traits, T> buildVolume(float voxelSize, int maxDepth, RefinePredicate const& wanted,
                              PositionFunction<T> const& function, T const& defaultValue,
                              VoxelOffsetType type) {
    Volume<Traits, T> volume;
    volume.container = Quern::makePtr<Container<Traits>>(voxelSize);
    volume.topology = Quern::makePtr<VoxelTopology<Traits>>(volume.container, type);
    refineTree(*volume.container, maxDepth, wanted);
    volume.channel = Quern::makePtr<DataChannel<Traits, T>>(Quern::String(), &defaultValue, 0, true,
                                                            true, 0, Traits::kMaxDepth);
    volume.channel->update(*volume.topology);
    fillChannel<Traits, T>(*volume.channel, *volume.topology, function);
    return volume;
}

ZEL_DETAIL_BUILDERS();

}  // namespace ORV::TileTree3D
