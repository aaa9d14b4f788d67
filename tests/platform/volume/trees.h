#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <random>
#include <set>
#include <tuple>
#include <vector>

#include "support/choices.h"
#include "zel_platform/orvane_geometry_volume/tile_tree.h"

// Random trees, and the same trees as a plain map of tiles.
namespace trees {

using namespace ORV::TileTree3D;

using Kinds = testing::Types<BinaryTraits, QuinaryTraits>;
/// Kinds of trees and types of values.
template <class Traits_, class T> struct Case {
    using Traits = Traits_;
    using Value = T;
};
using Cases = testing::Types<Case<BinaryTraits, float>, Case<BinaryTraits, float3>,
                             Case<QuinaryTraits, float>, Case<QuinaryTraits, float3>>;

inline float distance(float a, float b) {
    return std::abs(a - b);
}
inline float distance(float3 const& a, float3 const& b) {
    return std::max({distance(a.x, b.x), distance(a.y, b.y), distance(a.z, b.z)});
}

/// Random numbers of a seed that is printed, so that a failure can be repeated.
class Random {
public:
    explicit Random(unsigned seed) : m_choices(seed) { std::cout << "seed " << seed << "\n"; }
    explicit Random(support::Choices const& choices) : m_choices(choices) {}
    int operator()(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(m_choices);
    }
    float real(float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(m_choices);
    }
    /// Whether there are bytes left that a fuzzer gave.
    bool ended() const { return m_choices.ended(); }

private:
    support::Choices m_choices;
};

/// The n-th place of a cube of places, `width` along each axis, from `low` along each on.
inline int3 inCube(int n, int width, int low = 0) {
    return {low + n % width, low + n / width % width, low + n / width / width};
}

/// The width of a tile, counted up from the deepest one.
template <class Traits> constexpr long long width(int depth) {
    long long width = Traits::kBranch == 2 ? 4 : 5;
    for (int d = Traits::kBranch == 2 ? 28 : 12; d > depth; --d) width *= Traits::kBranch;
    return width;
}
template <class Traits> constexpr long long kLow = Traits::kBranch == 2 ? -536870912 : -610351562;

/// The corner of the tile of a depth over a point.
template <class Traits> int3 corner(int3 const& p, int depth) {
    long long const w = width<Traits>(depth);
    auto const down = [&](long long c) {
        return static_cast<int>(kLow<Traits> + (c - kLow<Traits>) / w * w);
    };
    return {down(p.x), down(p.y), down(p.z)};
}
template <class Traits> bool inRoot(long long x, long long y, long long z) {
    auto const in = [](long long c) {
        return kLow<Traits> <= c && c < kLow<Traits> + width<Traits>(0);
    };
    return in(x) && in(y) && in(z);
}

/// The tiles of a tree by depth and corner.
template <class Traits> class TileMap {
public:
    using Key = std::tuple<int, int, int, int>;

    void add(int3 const& p, int depth) {
        for (int d = 0; d <= depth; ++d) {
            int3 const c = corner<Traits>(p, d);
            m_tiles.emplace(d, c.x, c.y, c.z);
        }
    }
    bool has(int3 const& p, int depth) const {
        int3 const c = corner<Traits>(p, depth);
        return m_tiles.count({depth, c.x, c.y, c.z}) > 0;
    }
    /// The depth of the deepest tile over a point, at most `depth`; -1 for none.
    int find(int3 const& p, int depth) const {
        int const deepest = Traits::kBranch == 2 ? 28 : 12;
        if (!inRoot<Traits>(p.x, p.y, p.z)) return -1;
        for (int d = std::min(depth, deepest); d >= 0; --d)
            if (has(p, d)) return d;
        return -1;
    }
    std::size_t size() const { return m_tiles.size(); }

private:
    std::set<Key> m_tiles;
};

/// A tree of tiles at random depths around a few places, among them the origin, the root's corners
/// and faces. With 0 tiles a dense one, in which most tiles have neighbours of all kinds.
template <class Traits> struct RandomTree {
    RandomTree(Random& random, int tiles, int deepest, float voxelSize = 0.25f) : tree(voxelSize) {
        int const low = static_cast<int>(kLow<Traits>),
                  high = low + static_cast<int>(width<Traits>(0) - 1);
        std::vector<int3> centres{{0, 0, 0}, {low, low, low}, {high, high, high}, {low, 0, high}};
        for (int i = 0; i < 2; ++i)
            centres.push_back({random(low, high), random(low, high), random(low, high)});
        for (int i = 0; i < tiles; ++i) {
            int const depth = random(0, deepest);
            auto const spread = static_cast<int>(2 * width<Traits>(std::max(depth, 2)));
            int3 const& c = centres[static_cast<std::size_t>(random(0, 5))];
            auto const near = [&](int v) {
                return static_cast<int>(
                    std::clamp<long long>((long long){v} + random(-spread, spread), low, high));
            };
            add({near(c.x), near(c.y), near(c.z)}, depth);
        }
        if (tiles == 0) refine(random, {low, low, low}, 1, deepest);
    }

    void add(int3 const& p, int depth) { tree.addTile(p.x, p.y, p.z, depth); }
    /// Adds most children of a tile, and refines some of those.
    void refine(Random& random, int3 const& low, int depth, int deepest) {
        bool const binary = Traits::kBranch == 2;
        for (int slot = 0; slot < Traits::kChildCount; ++slot) {
            if (random(0, 9) >= (binary || depth < deepest ? 7 : 3)) continue;
            int3 const p =
                low + inCube(slot, Traits::kBranch) * static_cast<int>(width<Traits>(depth));
            add(p, depth);
            if (depth < deepest && random(0, 99) < (binary ? 60 : depth == 1 ? 12 : 3))
                refine(random, p, depth + 1, deepest);
        }
    }

    Container<Traits> tree;
};

/// A position on the lattice, in and around some tile: anywhere, on a face between voxels or tiles,
/// or one float to a side of it.
template <class Traits> float3 somePosition(Container<Traits> const& tree, Random& random) {
    int const depth = random(0, tree.depth());
    auto const& tile = tree.tile(random(0, static_cast<int>(tree.tileCount(depth)) - 1), depth);
    float3 p;
    for (int axis = 0; axis < 3; ++axis) {
        float const voxels = random(0, 1) == 0
                                 ? 0.5F * static_cast<float>(random(-1, 2 * Traits::kSamples + 1))
                                 : random.real(-0.7F, Traits::kSamples + 0.7F);
        float const c = static_cast<float>(tile.tijk()[axis]) +
                        voxels * static_cast<float>(tile.voxelDataWidth());
        int const side = random(-1, 1);
        p[axis] = side == 0 ? c : std::nextafter(c, side < 0 ? -INFINITY : INFINITY);
    }
    return p;
}

/// The polynomial through points at `x` with values `f`.
inline double lagrange(std::vector<double> const& x, std::vector<double> const& f, double at) {
    double sum = 0;
    for (std::size_t i = 0; i < x.size(); ++i) {
        double weight = f[i];
        for (std::size_t j = 0; j < x.size(); ++j)
            weight *= i == j ? 1 : (at - x[j]) / (x[i] - x[j]);
        sum += weight;
    }
    return sum;
}

/// The value between eight samples `f(dx, dy, dz)`, to the bit.
auto trilinear(auto const& f, auto const& t) {
    auto const lerp = [](auto const& a, auto const& b, float s) { return (b - a) * s + a; };
    auto const row = [&](int y, int z) { return lerp(f(0, y, z), f(1, y, z), t[0]); };
    return lerp(lerp(row(0, 0), row(1, 0), t[1]), lerp(row(0, 1), row(1, 1), t[1]), t[2]);
}

template <class T> T number(Random& random) {
    if constexpr (std::is_same_v<T, float>)
        return random.real(-1, 1);
    else
        return {random.real(-1, 1), random.real(-1, 1), random.real(-1, 1)};
}

/// A random tree with random samples, of which a channel has the depths `low` to `high`.
template <class Traits, class T> struct RandomVolume {
    RandomVolume(Random& random, int tiles, int deepest, int low, int high, int type = 7,
                 float voxelSize = 0.25f)
        : container(Quern::makePtr<Container<Traits>>(
              RandomTree<Traits>(random, tiles, deepest, voxelSize).tree)),
          topology(container, type), defaultValue(number<T>(random)),
          channel("", &defaultValue, 0, false, true, low, high),
          halo("", &defaultValue, 0, false, true, 0, Traits::kMaxDepth) {
        channel.update(topology);
        halo.update(topology);
        for (int d = low; d <= high; ++d)
            for (long long n = 0; n < channel.elementCount(d); ++n)
                channel.samples({0, d})[n] = number<T>(random);
    }
    void compute(HaloChannel<Traits, T>& to, int low = 0, int high = Traits::kMaxDepth) const {
        computeHalo<Traits, T, 0, 0, 1, 0>(channel, tree, to, low, high);
    }

    Quern::Ptr<Container<Traits>> container;
    Container<Traits> const& tree = *container;
    VoxelTopology<Traits> topology;
    T defaultValue;
    DataChannel<Traits, T> channel;
    HaloChannel<Traits, T> halo;
};

/// The halo rule, read slowly and with no tile in mind: what the tree says at a place of one depth.
/// A place is counted in voxels of the depth from the root's corner, and is where a sample sits but
/// for the offset.
template <class Traits, class T> class SlowHalo {
public:
    SlowHalo(Container<Traits> const& tree, DataChannel<Traits, T> const& channel, int type)
        : m_tree(tree), m_channel(channel), m_offset(VoxelTopology<Traits>::offsetOf(type)) {}

    using Place = std::array<long long, 3>;

    /// The sample of a depth at a place.
    T sample(Place const& voxel, int depth) const {
        long long const w = width<Traits>(depth) / Traits::kSamples;
        long long const x = kLow<Traits> + voxel[0] * w, y = kLow<Traits> + voxel[1] * w,
                        z = kLow<Traits> + voxel[2] * w;
        bool const inside = inRoot<Traits>(x, y, z);
        if (inside && depth >= m_channel.minDepth() && depth <= m_channel.depth()) {
            int3 const p{static_cast<int>(x), static_cast<int>(y), static_cast<int>(z)};
            auto const& tile = m_tree.tileAccessor().tile(p.x, p.y, p.z, depth);
            if (tile.depth() == depth)
                return m_channel.tileData(tile.treeIndex())(tile.childDataIJK(p));
        }
        if (!inside || depth == 0 || depth - 1 < m_channel.minDepth())
            return m_channel.defaultValue();
        // The parent's samples around the place, and how far between them it lies.
        Place low;
        std::array<double, 3> between;
        for (unsigned a = 0; a < 3; ++a) {
            double const o = m_offset[static_cast<int>(a)];
            double const at = (static_cast<double>(voxel[a]) + o) / Traits::kBranch - o;
            low[a] = static_cast<long long>(std::floor(at));
            between[a] = at - std::floor(at);
        }
        T sum{};
        for (unsigned corner = 0; corner < 8; ++corner) {
            double weight = 1;
            Place p = low;
            for (unsigned a = 0; a < 3; ++a) {
                p[a] += corner >> a & 1;
                weight *= (corner >> a & 1) != 0 ? between[a] : 1 - between[a];
            }
            if (weight > 0) sum = sum + sample(p, depth - 1) * static_cast<float>(weight);
        }
        return sum;
    }

    /// The first voxel of a tile, as a place.
    static Place first(TileOf<Traits> const& tile) {
        long long const w = width<Traits>(tile.depth()) / Traits::kSamples;
        int3 const& c = tile.tijk();
        return {(c.x - kLow<Traits>) / w, (c.y - kLow<Traits>) / w, (c.z - kLow<Traits>) / w};
    }

private:
    Container<Traits> const& m_tree;
    DataChannel<Traits, T> const& m_channel;
    float3 m_offset;
};

}  // namespace trees
