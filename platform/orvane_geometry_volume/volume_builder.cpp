#include "zel_platform/orvane_geometry_volume/volume_builder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <concepts>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/orvane_geometry_volume/messages.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"
#include "zel_platform/orvane_geometry_volume/sample_places.h"
#include "zel_platform/orvane_geometry_volume/tree_rollback.h"

namespace ORV::TileTree3D {

namespace {

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
            low[axis] = Internal::toWorld(corner, voxelSize);
            high[axis] = Internal::toWorld(corner + width, voxelSize);
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
        : m_channel(channel), m_topology(topology), m_function(function) {
        for (int axis = 0; axis < 3; ++axis)
            m_fineSamples[axis] = topology.offset()[axis] == 0 ? 1 : B;
        m_copies = m_fineSamples == int3{1, 1, 1};
    }

    void run(TileOf<Traits> const& tile) const {
        if (!m_function && !tile.m_children) return;
        // All at once, ahead of the calls: a function that reads two coordinates by one load would
        // wait for those that have just been written one by one.
        std::array<float3, Traits::kSampleCount> positions;
        if (m_function) setPositions(tile, positions);
        T* const samples = m_channel.samples(tile.treeIndex());
        T const* const below = m_channel.samples({0, tile.depth() + 1});  // of all finer tiles
        for (int slot = 0; slot < Traits::kChildCount; ++slot) {
            int3 const child = childPosition<Traits>(slot);
            int const fine = below && tile.m_children ? tile.m_children[slot] : -1;
            if (fine >= 0)
                restrictFrom(below + std::ptrdiff_t{fine} * Traits::kSampleCount, child, samples);
            else if (m_function)
                forSamples(child, [&](int3 const& at, int3 const&) {
                    auto const i = static_cast<std::size_t>(flat(at));
                    samples[i] = (*m_function)(positions[i]);
                });
        }
    }

private:
    static constexpr int W = Traits::kSamples;
    static constexpr int B = Traits::kBranch;

    static constexpr int flat(int3 const& at) { return at.x + W * (at.y + W * at.z); }

    void setPositions(TileOf<Traits> const& tile,
                      std::array<float3, Traits::kSampleCount>& positions) const {
        auto const places = Internal::samplePlaces(m_topology, tile);
        std::size_t i = 0;
        for (float const z : places.z)
            for (float const y : places.y)
                for (float const x : places.x) positions[i++] = {x, y, z};
    }

    /// Calls `use(at, inChild)` for the samples of a tile over one of its children: their places in
    /// the tile, and counted from the child's low corner.
    template <class Use> static void forSamples(int3 const& child, Use const& use) {
        constexpr int kSpan = W / B;
        for (int z = 0; z < kSpan; ++z)
            for (int y = 0; y < kSpan; ++y)
                for (int x = 0; x < kSpan; ++x) use(child * kSpan + int3{x, y, z}, int3{x, y, z});
    }

    /// Sets the samples over a child from the child's samples.
    void restrictFrom(T const* fine, int3 const& child, T* samples) const {
        if (m_copies)
            forSamples(child, [&](int3 const& at, int3 const& inChild) {
                samples[flat(at)] = fine[flat(inChild * B)];
            });
        else
            forSamples(child, [&](int3 const& at, int3 const& inChild) {
                samples[flat(at)] = mean(fine + flat(inChild * B));
            });
    }

    /// The mean of the fine samples in a coarse voxel, from the first on.
    T mean(T const* first) const {
        constexpr std::size_t kParts = std::same_as<T, float> ? 1 : 3;
        auto const [nx, ny, nz] = m_fineSamples;
        std::array<double, kParts> sums{};  // in double, since a sum of floats may overflow
        for (int z = 0; z < nz; ++z)
            for (int y = 0; y < ny; ++y)
                for (int x = 0; x < nx; ++x) {
                    auto const parts =
                        std::bit_cast<std::array<float, kParts>>(first[flat({x, y, z})]);
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
    int3 m_fineSamples;  ///< along each axis, of those that a coarse sample is the mean of
    bool m_copies;       ///< whether that is one sample
};

template <class Traits, class T>
void fillDepths(char const* caller, DataChannel<Traits, T>& channel,
                VoxelTopology<Traits> const& topology, PositionFunction<T> const* function,
                std::function<void()> const& pause = {}) {
    constexpr long long kGrain = 16, kPart = 1 << 14;
    auto const& container = topology.container();
    if (!channel.fits(container))
        throw std::invalid_argument(Internal::message(caller, ": channel '", channel.name(),
                                                      "' is not sized to the topology as it is"));
    TileFill<Traits, T> const fill(channel, topology, function);
    for (int depth = std::min(channel.depth(), container.depth()); depth >= channel.minDepth();
         --depth) {
        long long const count = channel.tileCount(depth);
        long long const part = pause ? kPart : count;
        for (long long at = 0; at < count; at += part) {
            if (pause) pause();
            Internal::parallelRanges(std::min(part, count - at), kGrain,
                                     [&](long long first, long long last) {
                                         for (long long i = at + first; i < at + last; ++i)
                                             fill.run(container.tile(i, depth));
                                     });
        }
    }
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
    restrictChannel<Traits, T>(channel, topology, {});
}

template <class Traits, class T>
void restrictChannel(DataChannel<Traits, T>& channel, VoxelTopology<Traits> const& topology,
                     std::function<void()> const& pause) {
    fillDepths<Traits, T>("restrictChannel", channel, topology, nullptr, pause);
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
