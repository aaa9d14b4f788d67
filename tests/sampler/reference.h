#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <map>
#include <optional>
#include <vector>

#include "orvane_geometry_volume/tile_tree.h"
#include "platform/volume/trees.h"

// Volumes of random samples for the tests of samplers, and slow readers of them that share no code
// with the library: tiles are searched for one by one, and a sample beyond a tile's faces is worked
// out from its rule whenever it is asked for.
namespace reference {

using namespace ORV::TileTree3D;
using trees::Random;

enum class Shape { kUniform, kRefined, kCheckerboard, kIsolated, kBorders };
inline constexpr std::array kShapes{Shape::kUniform, Shape::kRefined, Shape::kCheckerboard,
                                    Shape::kIsolated, Shape::kBorders};

/// Tiles of the deepest depths around a place that lies askew to coarser tiles, or around the
/// origin; kBorders has coarse ones in opposite corners of the root.
template <class Traits>
Quern::Ptr<Container<Traits>> makeTree(Shape shape, float voxelSize, bool atOrigin) {
    auto tree = Quern::makePtr<Container<Traits>>(voxelSize);
    constexpr int W = Traits::kSamples, D = Traits::kMaxDepth;
    int3 const centre = atOrigin ? int3() : int3{5000, -3003, 777};
    auto const add = [&](int x, int y, int z, int depth) {
        tree->addTile(centre.x + x * W, centre.y + y * W, centre.z + z * W, depth);
    };
    if (shape == Shape::kBorders) {
        int const low = Traits::kRootCorner, high = low + static_cast<int>(Traits::kRootWidth - 1);
        tree->addTile(low, low, low, 3);
        tree->addTile(high, low, high, 2);
        tree->addTile(high, high, high, 3);
        return tree;
    }
    if (shape == Shape::kIsolated) {
        add(0, 0, 0, D);
        add(20, -9, 7, D - 1);
        return tree;
    }
    for (int z = -2; z < 2; ++z)
        for (int y = -2; y < 2; ++y)
            for (int x = -2; x < 2; ++x) {
                bool const fine = shape == Shape::kUniform ||
                                  (shape == Shape::kRefined ? x + y >= 0 : (x + y + z) % 2 == 0);
                add(x, y, z, fine ? D : D - 1);
            }
    return tree;
}

/// Every sample of every tile of the channel at random, -1 to 1.
template <class Traits, class T> void fillRandom(DataChannel<Traits, T>& channel, Random& random) {
    for (int d = channel.minDepth(); d <= channel.depth(); ++d)
        for (long long i = 0; i < channel.tileCount(d); ++i) {
            auto* const first = reinterpret_cast<float*>(channel.samples(TreeIndex{i, d}));
            for (std::size_t n = 0; n < Traits::kSampleCount * sizeof(T) / sizeof(float); ++n)
                first[n] = random.real(-1, 1);
        }
}

template <class T> T number(float x) {
    if constexpr (sizeof(T) == sizeof(float))
        return x;
    else
        return T{x, x + 1, x - 2};
}

template <class Traits, class T> struct Scene {
    Scene(Shape shape, VoxelOffsetType type, Random& random, int minDepth = 0,
          bool atOrigin = false, float voxelSize = 0.25F)
        : container(makeTree<Traits>(shape, voxelSize, atOrigin)), topology(container, type),
          defaultValue(number<T>(0.375F)),
          channel("", &defaultValue, 0, false, true, minDepth, Traits::kMaxDepth),
          halo("", &defaultValue, 0, false, true, minDepth, Traits::kMaxDepth) {
        channel.update(topology);
        fillRandom<Traits, T>(channel, random);
        computeHalo();
    }
    void computeHalo() {
        halo.update(topology);
        ORV::TileTree3D::computeHalo<Traits, T, 0, 0, 1, 0>(channel, *container, halo, 0,
                                                            Traits::kMaxDepth);
    }

    /// A position on the lattice, in and around some tile: anywhere, on a face between voxels or
    /// tiles, or one float to a side of it.
    float3 position(Random& random) const {
        int const depth = random(0, container->depth());
        auto const tiles = container->tileCount(depth);
        auto const& tile = container->tile(random(0, static_cast<int>(tiles) - 1), depth);
        auto const width = static_cast<float>(tile.voxelDataWidth());
        float3 p;
        for (int axis = 0; axis < 3; ++axis) {
            bool const onFace = random(0, 1) == 0;
            float const voxels = onFace ? 0.5F * static_cast<float>(random(-1, 2 * kSamples + 1))
                                        : random.real(-0.7F, kSamples + 0.7F);
            float const c = static_cast<float>(tile.tijk()[axis]) + voxels * width;
            int const side = random(-1, 1);
            p[axis] = side == 0 ? c : std::nextafter(c, side < 0 ? -INFINITY : INFINITY);
        }
        return p;
    }

    static constexpr int kSamples = Traits::kSamples;
    Quern::Ptr<Container<Traits>> container;
    VoxelTopology<Traits> topology;
    T defaultValue;
    DataChannel<Traits, T> channel;
    HaloChannel<Traits, T> halo;
};

/// A number together with the magnitude of what it was summed from, which bounds the rounding of
/// the same sum in single precision.
struct Bounded {
    double value = 0, size = 0;

    static Bounded of(float v) { return {v, std::fabs(v)}; }
    friend Bounded operator+(Bounded const& a, Bounded const& b) {
        return {a.value + b.value, a.size + b.size};
    }
    friend Bounded operator-(Bounded const& a, Bounded const& b) {
        return {a.value - b.value, a.size + b.size};
    }
    friend Bounded operator*(Bounded const& a, double t) {
        return {a.value * t, a.size * std::fabs(t)};
    }
    bool near(float v) const { return std::fabs(v - value) <= 4e-6 * size; }
};

/// What a position is turned into.
template <class Traits> struct Place {
    TileOf<Traits> const* tile;
    std::array<int, 3> lijk;
    std::array<float, 3> frac;
};

template <class Traits>
std::optional<Place<Traits>> locate(VoxelTopology<Traits> const& topology, float3 const& position,
                                    bool inWorld, int depth) {
    auto const& container = topology.container();
    float const size = container.voxelSize(), inverse = size == 0 ? 0 : 1 / size;
    std::array<float, 3> v;
    std::array<long long, 3> point;
    for (int axis = 0; axis < 3; ++axis) {
        auto const a = static_cast<std::size_t>(axis);
        v[a] = inWorld ? position[axis] * inverse : position[axis];
        if (!(std::fabs(v[a]) < 1e9F)) return {};
        point[a] = static_cast<long long>(std::floor(double{v[a]}));
    }
    for (int d = std::min(depth, container.depth()); d >= 0; --d)
        for (long long i = 0; i < container.tileCount(d); ++i) {
            auto const& tile = container.tile(i, d);
            bool inside = true;
            for (int axis = 0; axis < 3; ++axis) {
                long long const above = point[static_cast<std::size_t>(axis)] - tile.tijk()[axis];
                inside = inside && 0 <= above && above < trees::width<Traits>(d);
            }
            if (!inside) continue;
            Place<Traits> place{&tile, {}, {}};
            long long const voxel = trees::width<Traits>(d) / Traits::kSamples;
            auto const perVoxel = static_cast<float>(1.0 / static_cast<double>(voxel));
            for (std::size_t a = 0; a < 3; ++a) {
                int const axis = static_cast<int>(a);
                bool const onCorner = (topology.offsetType() >> a & 1) != 0;
                float const above = v[a] - static_cast<float>(tile.tijk()[axis]);
                float l = above * perVoxel - (onCorner ? 0.0F : 0.5F);
                if (l > -1e-5F && l <= 0) l = 0;
                double const below = std::clamp(std::floor(double{l}), onCorner ? 0.0 : -1.0,
                                                Traits::kSamples - 1.0);
                place.lijk[a] = static_cast<int>(below);
                place.frac[a] = l - static_cast<float>(below);
            }
            return place;
        }
    return {};
}

/// The samples of a level at any place of the lattice, for offset type 7: those of the level's
/// tiles, and elsewhere what the coarser level has there.
template <class Traits, class T> class Corners {
public:
    explicit Corners(Scene<Traits, T> const& scene) : m_scene(scene) {
        auto const& container = *scene.container;
        for (int d = 0; d <= container.depth(); ++d)
            for (long long i = 0; i < container.tileCount(d); ++i) {
                int3 const& c = container.tile(i, d).tijk();
                m_tiles[{d, c.x, c.y, c.z}] = {i, d};
            }
    }

    T at(int depth, std::array<long long, 3> const& p) const {
        constexpr long long low = trees::kLow<Traits>;
        auto const& channel = m_scene.channel;
        if (!trees::inRoot<Traits>(p[0], p[1], p[2])) return channel.defaultValue();
        long long const tileWidth = trees::width<Traits>(depth), width = tileWidth / W;
        std::array<long long, 3> corner, voxel;
        for (std::size_t a = 0; a < 3; ++a) {
            corner[a] = low + (p[a] - low) / tileWidth * tileWidth;
            voxel[a] = (p[a] - corner[a]) / width;
        }
        auto const tile = m_tiles.find({depth, corner[0], corner[1], corner[2]});
        if (tile != m_tiles.end())
            return channel.samples(tile->second)[voxel[0] + W * (voxel[1] + W * voxel[2])];
        if (depth <= channel.minDepth()) return channel.defaultValue();

        long long const coarse = width * Traits::kBranch;
        std::array<long long, 3> below;
        std::array<float, 3> t;
        for (std::size_t a = 0; a < 3; ++a) {
            below[a] = low + (p[a] - low) / coarse * coarse;
            t[a] = static_cast<float>((p[a] - below[a]) / width) / Traits::kBranch;
        }
        return between(depth - 1, below, coarse, t, 2);
    }

private:
    static constexpr int W = Traits::kSamples;

    T between(int depth, std::array<long long, 3> p, long long width, std::array<float, 3> const& t,
              int axis) const {
        if (axis < 0) return at(depth, p);
        auto const a = static_cast<std::size_t>(axis);
        T const lower = between(depth, p, width, t, axis - 1);
        if (t[a] == 0) return lower;
        p[a] += width;
        return (between(depth, p, width, t, axis - 1) - lower) * t[a] + lower;
    }

    Scene<Traits, T> const& m_scene;
    std::map<std::array<long long, 4>, TreeIndex> m_tiles;
};

/// One component of the ring tiles of offset types other than 7, each worked out once.
template <class Traits, class T> class Rings {
public:
    Rings(Scene<Traits, T> const& scene, int component)
        : m_scene(scene), m_component(component), m_default(float_(scene.defaultValue)) {}

    using Index = std::array<int, 3>;
    using Ring = std::map<Index, Bounded>;

    Bounded own(TreeIndex const& tree, Index const& p) const {
        return float_(m_scene.channel.samples(tree)[p[0] + W * (p[1] + W * p[2])]);
    }

    Ring const& of(TreeIndex const& tree) {
        auto const [entry, isNew] = m_rings.try_emplace(std::pair(tree.tile, tree.depth));
        if (isNew) entry->second = make(tree);
        return entry->second;
    }

private:
    static constexpr int W = Traits::kSamples;

    Bounded float_(T const& value) const {
        return Bounded::of(reinterpret_cast<float const*>(&value)[m_component]);
    }
    bool onFace(std::size_t axis) const { return (m_scene.topology.offsetType() >> axis & 1) != 0; }

    Ring make(TreeIndex const& tree) {
        Ring ring;
        for (int k = 0; k < W; ++k)
            for (int j = 0; j < W; ++j)
                for (int i = 0; i < W; ++i) ring[{i, j, k}] = own(tree, {i, j, k});
        auto const& tile = m_scene.container->tile(tree);
        bool const usesParent = tree.depth > m_scene.channel.minDepth();
        // Faces, then edges, then corners; along x first, and low sides before high ones.
        for (int sides = 1; sides <= 3; ++sides)
            for (int part = 0; part < 27; ++part) {
                Index const e{side(part % 3), side(part / 3 % 3), side(part / 9)};
                if (std::abs(e[0]) + std::abs(e[1]) + std::abs(e[2]) != sides) continue;
                for (Index g : elementOf(e))
                    if (usesParent)
                        fromParent(tile, e, g, ring);
                    else
                        fromDefault(e, g, ring, sides);
            }
        return ring;
    }
    static int side(int s) { return s == 0 ? 0 : s == 1 ? -1 : 1; }
    static std::vector<Index> elementOf(Index const& d) {
        std::vector<Index> all;
        for (int k = -1; k <= W; ++k)
            for (int j = -1; j <= W; ++j)
                for (int i = -1; i <= W; ++i) {
                    Index const g{i, j, k};
                    bool fits = true;
                    for (std::size_t a = 0; a < 3; ++a)
                        fits = fits && (g[a] < 0 ? -1 : g[a] == W ? 1 : 0) == d[a];
                    if (fits) all.push_back(g);
                }
        return all;
    }
    /// `steps` steps inward from an element, along the axes of a mask.
    static Index inward(Index g, Index const& d, int steps, unsigned axes = 7) {
        for (std::size_t a = 0; a < 3; ++a)
            if (axes >> a & 1) g[a] -= steps * d[a];
        return g;
    }

    void fromDefault(Index const& d, Index const& g, Ring& ring, int sides) const {
        bool face = false;
        for (std::size_t a = 0; a < 3; ++a) face = face || (d[a] != 0 && onFace(a));
        Index const inner = inward(g, d, 1);
        if (face) {
            ring[g] = m_default;
            if (sides == 1 && d[0] + d[1] + d[2] < 0) ring[inner] = m_default;
        } else {
            ring[g] = sides == 2 ? ring[inner] : m_default * 2 - ring[inner];
        }
    }

    TreeIndex neighbor(TileOf<Traits> const& tile, Index const& d, unsigned axes) const {
        int const width = tile.tileVoxelWidth();
        int3 const& c = tile.tijk();
        int3 const corner{c.x + (axes & 1 ? d[0] : 0) * width, c.y + (axes & 2 ? d[1] : 0) * width,
                          c.z + (axes & 4 ? d[2] : 0) * width};
        for (long long i = 0; i < m_scene.container->tileCount(tile.depth()); ++i)
            if (m_scene.container->tile(i, tile.depth()).tijk() == corner) return {i, tile.depth()};
        return {};
    }

    void fromParent(TileOf<Traits> const& tile, Index const& d, Index const& g, Ring& ring) {
        bool copies = true, extrapolates = false;
        unsigned middle = 0;
        for (unsigned axes = 1; axes < 8; ++axes)
            copies = copies && neighbor(tile, d, axes).valid();
        for (std::size_t a = 0; a < 3; ++a) {
            extrapolates = extrapolates || (d[a] < 0 && onFace(a));
            if (d[a] != 0 && !onFace(a)) middle |= 1U << a;
        }
        bool const single = std::abs(d[0]) + std::abs(d[1]) + std::abs(d[2]) == 1;
        if (copies) {
            ring[g] = own(neighbor(tile, d, 7), inward(g, d, W));
        } else if (extrapolates) {
            if (single) ring[inward(g, d, 1)] = coarse(tile, d, g);
            ring[g] = ring[inward(g, d, 1)] * 2 - ring[inward(g, d, 2)];
        } else {
            ring[g] = coarse(tile, d, g) * (1 << std::popcount(middle));
            for (unsigned axes = 1; axes < 8; ++axes)
                if ((axes & ~middle) == 0) ring[g] = ring[g] - ring[inward(g, d, 1, axes)];
        }
    }

    /// What the parent has at the place of a sample, or on the face beside one of the ring.
    Bounded coarse(TileOf<Traits> const& tile, Index const& d, Index const& g) {
        Ring const& parent = of(tile.parentTreeIndex());
        int3 const child = m_scene.container->tile(tile.parentTreeIndex()).childIJK(tile.tijk());
        std::array<int, 3> below;
        std::array<double, 3> t;
        for (std::size_t a = 0; a < 3; ++a) {
            double const offset = onFace(a) ? 0 : 0.5;
            double const voxels = d[a] < 0 ? 0 : d[a] > 0 ? W : g[a] + offset;
            double const place =
                (child[static_cast<int>(a)] * W + voxels) / Traits::kBranch - offset;
            below[a] = static_cast<int>(std::floor(place));
            t[a] = place - below[a];
        }
        Bounded sum;
        for (int corner = 0; corner < 8; ++corner) {
            double weight = 1;
            Index p;
            for (std::size_t a = 0; a < 3; ++a) {
                int const up = corner >> a & 1;
                weight *= up ? t[a] : 1 - t[a];
                p[a] = below[a] + up;
            }
            if (weight > 0) sum = sum + parent.at(p) * weight;
        }
        return sum;
    }

    Scene<Traits, T> const& m_scene;
    int m_component;
    Bounded m_default;
    std::map<std::pair<long long, int>, Ring> m_rings;
};

/// The value between eight samples `f(dx, dy, dz)`.
template <class F> auto trilinear(F const& f, std::array<float, 3> const& t) {
    auto const lerp = [](auto const& a, auto const& b, float s) { return (b - a) * s + a; };
    auto const row = [&](int y, int z) { return lerp(f(0, y, z), f(1, y, z), t[0]); };
    return lerp(lerp(row(0, 0), row(1, 0), t[1]), lerp(row(0, 1), row(1, 1), t[1]), t[2]);
}

}  // namespace reference
