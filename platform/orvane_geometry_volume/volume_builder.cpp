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

/// A lattice coordinate, which need not be whole, in world units; infinite beyond the floats.
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

/// Asks the predicate for all children of one tile.
template <class Traits>
std::array<bool, Traits::kChildCount> wantedChildren(TileOf<Traits> const& tile, float voxelSize,
                                                     RefinePredicate const& wanted) {
    std::array<bool, Traits::kChildCount> flags;
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
        flags[static_cast<unsigned>(slot)] = wanted(low, high, depth);
    }
    return flags;
}

template <class Traits>
void refineDepth(Container<Traits>& container, int depth, RefinePredicate const& wanted) {
    constexpr long long kGrain = 16;
    long long const count = container.tileCount(depth);
    std::vector<std::array<bool, Traits::kChildCount>> flags(static_cast<std::size_t>(count));
    Internal::parallelRanges(count, kGrain, [&](long long first, long long last) {
        for (long long i = first; i < last; ++i)
            flags[static_cast<std::size_t>(i)] =
                wantedChildren<Traits>(container.tile(i, depth), container.voxelSize(), wanted);
    });
    for (long long i = 0; i < count; ++i)
        for (int slot = 0; slot < Traits::kChildCount; ++slot)
            if (flags[static_cast<std::size_t>(i)][static_cast<unsigned>(slot)])
                container.addChild({i, depth}, childPosition<Traits>(slot));
}

/// Fills and restricts the samples of single tiles, finer tiles first.
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
                        *sample = (*m_function)({places[0][static_cast<unsigned>(i)],
                                                 places[1][static_cast<unsigned>(j)],
                                                 places[2][static_cast<unsigned>(k)]});
                }
    }

private:
    static constexpr int W = Traits::kSamples;
    static constexpr int B = Traits::kBranch;

    std::array<std::array<float, W>, 3> samplePlaces(TileOf<Traits> const& tile) const {
        std::array<std::array<float, W>, 3> places;
        double const width = tile.voxelDataWidth();
        for (int axis = 0; axis < 3; ++axis)
            for (int i = 0; i < W; ++i)
                places[static_cast<unsigned>(axis)][static_cast<unsigned>(i)] =
                    toWorld(tile.m_tijk[axis] + width * (i + double{m_topology.offset()[axis]}),
                            m_topology.container().voxelSize());
        return places;
    }

    /// The sample of a coarse voxel from the B samples along each axis of the fine voxels in it,
    /// the first of which is at `first`.
    T restricted(T const* fine, int3 const& first) const {
        auto const count = [&](int axis) { return m_topology.offset()[axis] == 0 ? 1 : B; };
        int const nx = count(0), ny = count(1), nz = count(2);
        T const* const corner = fine + first.x + W * (first.y + W * first.z);
        if (nx * ny * nz == 1) return *corner;
        constexpr std::size_t kParts = std::same_as<T, float> ? 1 : 3;
        std::array<double, kParts> sums{};  // beyond the range of floats
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
