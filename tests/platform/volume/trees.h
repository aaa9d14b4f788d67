#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <iostream>
#include <map>
#include <random>
#include <tuple>
#include <vector>

#include "orvane_geometry_volume/tile_tree.h"

// Random trees, and the same trees as a plain map of tiles.
namespace trees {

using namespace ORV::TileTree3D;

using Kinds = testing::Types<BinaryTraits, QuinaryTraits>;

/// Random numbers of a seed that is printed, so that a failure can be repeated.
class Random {
public:
    explicit Random(unsigned seed) : m_engine(seed) { std::cout << "seed " << seed << "\n"; }
    int operator()(int low, int high) {
        return std::uniform_int_distribution<int>(low, high)(m_engine);
    }
    float real(float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(m_engine);
    }

private:
    std::mt19937 m_engine;
};

/// The width of a tile, counted up from the deepest one.
template <class Traits> long long width(int depth) {
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
            m_tiles[{d, c.x, c.y, c.z}] = true;
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
    std::map<Key, bool> m_tiles;
};

/// A tree of tiles at random depths around a few places, among them the origin, the root's corners
/// and faces. With 0 tiles a dense one, in which most tiles have neighbours of all kinds.
template <class Traits> struct RandomTree {
    RandomTree(Random& random, int tiles, int deepest) {
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

    void add(int3 const& p, int depth) {
        indices.push_back(tree.addTile(p.x, p.y, p.z, depth));
        points.push_back(p);
        map.add(p, depth);
    }
    /// Adds most children of a tile, and refines some of those.
    void refine(Random& random, int3 const& low, int depth, int deepest) {
        bool const binary = Traits::kBranch == 2;
        for (int slot = 0; slot < Traits::kChildCount; ++slot) {
            if (random(0, 9) >= (binary || depth < deepest ? 7 : 3)) continue;
            int3 const at{slot % Traits::kBranch, slot / Traits::kBranch % Traits::kBranch,
                          slot / (Traits::kBranch * Traits::kBranch)};
            int3 const p = low + at * static_cast<int>(width<Traits>(depth));
            add(p, depth);
            if (depth < deepest && random(0, 99) < (binary ? 60 : depth == 1 ? 12 : 3))
                refine(random, p, depth + 1, deepest);
        }
    }

    Container<Traits> tree{0.25f};
    TileMap<Traits> map;
    std::vector<TreeIndex> indices;
    std::vector<int3> points;
};

}  // namespace trees
