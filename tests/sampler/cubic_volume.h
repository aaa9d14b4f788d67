#pragma once

#include <memory>

#include "platform/volume/trees.h"
#include "support/probe.h"
#include "zel/sampler/cubic/voxel_sampler_cubic.h"
#include "zel_platform/orvane_geometry_volume/channel.h"

// Volumes for the tests of the cubic sampler, and what a sampler with kJumpTrilinear must give,
// written slowly: every stencil value and every corner is looked up by its place in the tree.
namespace cubic {

using namespace trees;
using support::kInf;
using support::kNaN;
using support::make;
using support::same;

template <class Traits, class T> using Sampler = VoxelSamplerCubic<Traits, T, float, float3, 0, 0>;

template <class Traits> constexpr int voxel(int depth) {
    return static_cast<int>(width<Traits>(depth) / Traits::kSamples);
}
/// A cube of tiles around a place, `across` along each axis, as far as they lie in the root. With
/// `gaps` one of ten is missing.
template <class Traits>
void addCube(Container<Traits>& tree, int depth, int across, int3 const& centre = {},
             Random* gaps = nullptr) {
    long long const w = width<Traits>(depth);
    for (int n = 0; n < across * across * across; ++n) {
        if (gaps && (*gaps)(0, 9) == 0) continue;
        int3 const at = inCube(n, across, -(across / 2));
        long long const x = centre.x + w * at.x, y = centre.y + w * at.y, z = centre.z + w * at.z;
        if (inRoot<Traits>(x, y, z))
            tree.addTile(static_cast<int>(x), static_cast<int>(y), static_cast<int>(z), depth);
    }
}
/// Cubes of five tiles along each axis, with gaps, over one another around the origin, at a corner
/// of the root and at random places.
template <class Traits>
Quern::Ptr<Container<Traits>> clusteredTree(Random& random, int shallowest) {
    auto tree = Quern::makePtr<Container<Traits>>(0.25F);
    auto const cluster = [&](int3 const& centre, int depth) {
        addCube<Traits>(*tree, depth, 5, centre, &random);
    };
    int const deepest = Traits::kMaxDepth, low = static_cast<int>(kLow<Traits>);
    for (int depth = deepest - 3; depth <= deepest; ++depth)
        cluster({random(-9, 9), random(-9, 9), random(-9, 9)}, depth);
    cluster({low, low, -low - 1}, shallowest + 1);
    for (int n = 0; n < 3; ++n)
        cluster({random(low, -low - 1), random(low, -low - 1), random(low, -low - 1)},
                random(shallowest, 7));
    return tree;
}

template <class Traits, class T> struct TestVolume {
    TestVolume(Quern::Ptr<Container<Traits>> tree, VoxelOffsetType type, int minDepth, int maxDepth,
               T const& defaultValue)
        : container(tree), topology(tree, type),
          channel("", &defaultValue, 0, false, true, minDepth, maxDepth),
          flags("", nullptr, 0, false, true, 0, maxDepth) {
        channel.update(topology);
        flags.update(topology);
    }

    /// Sets each sample to a function of its place, in finest voxels.
    void fill(std::function<T(double x, double y, double z)> const& function) {
        float3 const o = topology.offset();
        for (int depth = channel.minDepth(); depth <= channel.depth(); ++depth)
            for (long long n = 0; n < channel.tileCount(depth); ++n) {
                int3 const corner = container->tile(n, depth).tijk();
                auto data = channel.tileData(TreeIndex{n, depth});
                double const w = voxel<Traits>(depth);
                for (int l = 0; l < Traits::kSampleCount; ++l) {
                    int3 const at = inCube(l, Traits::kSamples);
                    data(at.x, at.y, at.z) = function(corner.x + w * (at.x + double{o.x}),
                                                      corner.y + w * (at.y + double{o.y}),
                                                      corner.z + w * (at.z + double{o.z}));
                }
            }
    }
    void fillRandomly(Random& random) {
        fill([&](double, double, double) { return number<T>(random); });
    }

    Sampler<Traits, T> sampler(int type, bool clamp = false, int jump = kJumpTrilinear,
                               Internal::DofChannel<Traits> const* dof = nullptr,
                               long long cacheSize = 0) const {
        return {*container, topology, channel, type, clamp, jump, dof, 1, cacheSize};
    }

    /// The next position of a walk: steps within a voxel, to the next ones, and far away.
    float3 step(Random& random, float3 const& last, int n) const {
        auto const near = [&] { return random.real(-2, 2); };
        float3 p =
            n % 4 == 0 ? somePosition(*container, random) : last + float3{near(), near(), near()};
        if (n % 3 == 0) p.x = std::floor(p.x);
        return p;
    }

    Quern::Ptr<Container<Traits>> container;
    VoxelTopology<Traits> topology;
    DataChannel<Traits, T> channel;
    Internal::DofChannel<Traits> flags;
};

using Four = std::array<double, 4>;

constexpr int kBlend = 7;

/// The interpolant of a CubicType, or the straight line for kBlend, through points at `x` with
/// values `f`.
inline double interpolant(int type, Four const& x, Four const& f, double at) {
    auto const through = [&](int first, int count) {
        return lagrange({x.data() + first, x.data() + first + count},
                        {f.data() + first, f.data() + first + count}, at);
    };
    if (type == kQuadraticC0Averaged) return (through(0, 3) + through(1, 3)) / 2;
    if (type == kCubicC0) return through(0, 4);
    if (type == kBlend) return f[1] + (f[2] - f[1]) * (at - x[1]) / (x[2] - x[1]);
    if (type != kCubicC1 && type != kCubicC1Monotonic) return 0;
    // The slope at a point of the parabola through it and its two neighbours.
    auto const slope = [&](std::size_t i) {
        double const h = x[i] - x[i - 1], g = x[i + 1] - x[i];
        double const s = (f[i] - f[i - 1]) / h, t = (f[i + 1] - f[i]) / g;
        double const m = s + (t - s) * h / (h + g);
        return type == kCubicC1 || m * (f[2] - f[1]) > 0 ? m : 0;
    };
    // The cubic of two values and slopes, in Bezier's form.
    double const h = x[2] - x[1], t = (at - x[1]) / h;
    Four p{f[1], f[1] + h * slope(1) / 3, f[2] - h * slope(2) / 3, f[2]};
    for (std::size_t n = 3; n > 0; --n)
        for (std::size_t i = 0; i < n; ++i) p[i] += (p[i + 1] - p[i]) * t;
    return p[0];
}

/// Values around a voxel, by offsets of -1 to 2 along x, y and z.
template <class T> using Corner = std::function<T(int i, int j, int k)>;

/// The interpolant in a voxel of component `c`, in double.
template <class T>
double interpolantAround(Corner<T> const& corner, unsigned c, int type, bool clamp,
                         std::array<double, 3> const& t) {
    constexpr Four kPlaces{-1, 0, 1, 2};
    auto const value = [&](unsigned i, unsigned j, unsigned k) -> double {
        T const v =
            corner(static_cast<int>(i) - 1, static_cast<int>(j) - 1, static_cast<int>(k) - 1);
        return std::bit_cast<std::array<float, sizeof(T) / sizeof(float)>>(v)[c];
    };
    Four planes{}, rows{};
    double low = value(1, 1, 1), high = low;
    unsigned const first = type == kBlend ? 1 : 0, end = 4 - first;
    for (unsigned k = first; k < end; ++k) {
        for (unsigned j = first; j < end; ++j) {
            Four row{};
            for (unsigned i = first; i < end; ++i) row[i] = value(i, j, k);
            rows[j] = interpolant(type, kPlaces, row, t[0]);
            if (k == 0 || k == 3 || j == 0 || j == 3) continue;
            low = std::min({low, row[1], row[2]});
            high = std::max({high, row[1], row[2]});
        }
        planes[k] = interpolant(type, kPlaces, rows, t[1]);
    }
    double const result = interpolant(type, kPlaces, planes, t[2]);
    return clamp && type != kBlend ? std::clamp(result, low, high) : result;
}

/// A lattice point without a bound.
using Point = std::array<long long, 3>;
inline Point step(Point const& p, long long length, int i, int j, int k) {
    return {p[0] + length * i, p[1] + length * j, p[2] + length * k};
}

template <class Traits, class T> class Reference {
public:
    enum Kind { kOutside, kUniform, kJump };

    explicit Reference(TestVolume<Traits, T> const& volume) : m_volume(volume) {}

    /// The value, and how the voxel is interpolated; `type` may be kBlend.
    struct Answer {
        T value;
        Corner<T> corner{};
        int type = 0;
    };
    /// The answers of a sampler, and of one with a cache, which blends over a jump within a tile's
    /// halo.
    struct Sample {
        Kind kind;
        Answer plain, cached;
        float3 frac{};
        double voxel = 0;  ///< its width in world units
    };
    Sample sample(float3 const& v, int limit, int type, bool clamp) const {
        auto const& channel = m_volume.channel;
        T const outside = channel.defaultValue();
        VoxelSampler<Traits, float, float3> base(*m_volume.container, m_volume.topology);
        TreeIndex found;
        int3 lijk;
        float3 frac;
        base.locate(v, 0, found, lijk, frac, std::min(limit, channel.depth()), nullptr);
        if (found.depth < std::max(channel.minDepth(), 0)) return {kOutside, {outside}, {outside}};
        auto const& tile = m_volume.container->tile(found);
        int const w = voxel<Traits>(tile.depth());
        Point llc{};
        for (unsigned n = 0; n < 3; ++n) {  // beyond 2^24 a place may be rounded out of its tile
            int const a = static_cast<int>(n), most = Traits::kSamples - 1;
            llc[n] = tile.tijk()[a] + static_cast<long long>(w) * std::clamp(lijk[a], -1, most);
        }
        bool isUniform = true;
        for (int n = 0; n < 8; ++n) {
            Point const p = step(step(llc, w, -1, -1, -1), width<Traits>(tile.depth()), n >> 2,
                                 n >> 1 & 1, n & 1);
            isUniform = isUniform && deepest(p, tile.depth()).depth() == tile.depth();
        }
        auto const corner = [this, llc, w, depth = tile.depth()](int i, int j, int k) {
            return point(step(llc, w, i, j, k), depth);
        };
        double const inWorld = double{m_volume.container->voxelSize()} * w;
        if (isUniform) {
            Answer const answer{cubic(corner, frac, type, clamp), corner, type};
            return {kUniform, answer, answer, frac, inWorld};
        }
        Answer const blend{trilinear(corner, frac), corner, kBlend};
        if (m_volume.topology.offsetType() != 7) return {kJump, blend, blend, frac, inWorld};
        constexpr int kW = Traits::kSamples;
        using Halo = TileData<T, kW + 1, 1, 0>;
        auto const halo = std::make_shared<Halo>((kW + 3) * (kW + 3) * (kW + 3));
        auto accessor = m_volume.container->tileAccessor();
        setHaloTile<Traits, T, 0, 1, 0, 1>(found, channel, 4, 15, accessor, *halo, T(), 1.0F, 7);
        auto const inHalo = [halo, lijk](int i, int j, int k) {
            return (*halo)(lijk.x + i, lijk.y + j, lijk.z + k);
        };
        Answer const inTile{cubic(inHalo, frac, type, clamp), inHalo, type};
        return {kJump, blend, inTile, frac, inWorld};
    }

    /// Checks a gradient by world units against differences in double, but for the derivatives that
    /// change where a limit begins at the place. Returns the number of those checked.
    static int checkGradient(Sample const& sample, Answer const& answer, bool clamp,
                             GradientOf<T> const& gradient) {
        constexpr double kNear = 1e-5, kStep = 1e-7;  // rounding may move a place by kNear
        using Floats = std::array<float, sizeof(gradient) / sizeof(float)>;
        auto const got = std::bit_cast<Floats>(gradient);
        int compared = 0;
        for (unsigned n = 0; n < got.size(); ++n) {
            // At the place moved along all axes.
            auto const slope = [&](double move) {
                std::array<double, 3> low{}, high{};
                for (unsigned a = 0; a < 3; ++a)
                    low[a] = high[a] = double{sample.frac[static_cast<int>(a)]} + move;
                low[n % 3] -= kStep;
                high[n % 3] += kStep;
                auto const value = [&](auto const& t) {
                    return interpolantAround(answer.corner, n / 3, answer.type, clamp, t);
                };
                return (value(high) - value(low)) / (2 * kStep);
            };
            double const below = slope(-kNear), above = slope(kNear);
            if (std::abs(above - below) > 2e-4) continue;
            ++compared;
            EXPECT_NEAR(got[n] * sample.voxel, (below + above) / 2, 1e-4) << "float " << n;
        }
        return compared;
    }

    /// The cubic interpolant of the values `corner(i, j, k)` around a voxel.
    static T cubic(auto const& corner, float3 const& frac, int type, bool clamp) {
        T planes[4], low = corner(0, 0, 0), high = low;
        for (int k = 0; k < 4; ++k) {
            T rows[4];
            for (int j = 0; j < 4; ++j) {
                T f[4];
                for (int i = 0; i < 4; ++i) f[i] = corner(i - 1, j - 1, k - 1);
                rows[j] = interpolate(type, f, frac[0]);
            }
            planes[k] = interpolate(type, rows, frac[1]);
        }
        T const value = interpolate(type, planes, frac[2]);
        if (!clamp) return value;
        auto const lesser = [](float a, float b) { return std::min(a, b); };
        auto const greater = [](float a, float b) { return std::max(a, b); };
        for (int n = 0; n < 8; ++n) {
            T const c = corner(n >> 2, n >> 1 & 1, n & 1);
            low = each(lesser, low, c);
            high = each(greater, high, c);
        }
        return each(greater, each(lesser, value, high), low);
    }

    /// The channel at the data point of the voxel of a depth over a lattice point.
    T point(Point const& p, int depth) const {
        auto const& channel = m_volume.channel;
        auto const& found = deepest(p, depth);
        if (found.depth() < std::max(channel.minDepth(), 0)) return channel.defaultValue();
        if (found.depth() == depth) return value(p, depth);

        // The samples around the place, at the level of the tile that holds the lowest of them.
        Point corner{};
        float3 frac;
        int level = found.depth();
        for (int next = -1; level != next;) {
            if (next >= 0) level = next;
            double const w = voxel<Traits>(level);
            for (unsigned n = 0; n < 3; ++n) {
                int const a = static_cast<int>(n);
                double const above = static_cast<double>(p[n] - kLow<Traits>) +
                                     (voxel<Traits>(depth) - w) * m_volume.topology.offset()[a];
                double const cell = std::floor(above / w), rest = above - cell * w;
                corner[n] = kLow<Traits> + static_cast<long long>(cell * w);
                frac[a] = m_volume.topology.offsetType() == 7
                              ? static_cast<float>(rest) / static_cast<float>(w)
                              : static_cast<float>(rest / w);
            }
            next = deepest(corner, level).depth();
            if (next < 0) return channel.defaultValue();
        }
        if (frac == float3{} && m_volume.topology.offsetType() == 7) return value(corner, level);
        if (level < 1) return channel.defaultValue();
        auto const sample = [&](int i, int j, int k) {
            return point(step(corner, voxel<Traits>(level), i, j, k), level);
        };
        return trilinear(sample, frac);
    }

private:
    static int3 inInts(Point const& p) {
        return {static_cast<int>(p[0]), static_cast<int>(p[1]), static_cast<int>(p[2])};
    }
    TileOf<Traits> const& deepest(Point const& p, int limit) const {
        if (!inRoot<Traits>(p[0], p[1], p[2])) return Container<Traits>::sentinel();
        int3 const q = inInts(p);
        return m_volume.container->tileAccessor().tile(q.x, q.y, q.z, limit);
    }
    T value(Point const& p, int depth) const {
        auto const& tile = deepest(p, depth);
        return m_volume.channel.tileData(tile.treeIndex())(tile.childDataIJK(inInts(p)));
    }

    template <class Function> static T each(Function function, T const& a, T const& b) {
        if constexpr (std::is_same_v<T, float>)
            return function(a, b);
        else
            return {function(a.x, b.x), function(a.y, b.y), function(a.z, b.z)};
    }
    static T interpolate(int type, T const (&f)[4], float t) {
        using Register = Internal::RegisterTraits<T>;
        return Internal::withType(type, [&]<int Type>() {
            return Register::to(
                Internal::UniformInterpolant<Type>(t)(Register::from(f[0]), Register::from(f[1]),
                                                      Register::from(f[2]), Register::from(f[3])));
        });
    }

    TestVolume<Traits, T> const& m_volume;
};

}  // namespace cubic
