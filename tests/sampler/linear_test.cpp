#include <limits>
#include <map>
#include <optional>
#include <vector>

#include "benchmarks/allocation_count.h"
#include "platform/volume/trees.h"
#include "support/probe.h"
#include "zel/sampler/linear/ring_fill.h"
#include "zel/sampler/linear/voxel_sampler_linear.h"

namespace {

using namespace trees;
using support::kInf;
using support::kNaN;
using support::same;

constexpr int kWorld = 2, kLattice = 0;
/// Coordinates that no tree covers.
constexpr float kFar[] = {6.2e8F, -6.2e8F, 1.1e9F, 0x1p31F, -0x1p31F, 3e9F,
                          1e38F,  -1e38F,  kInf,   -kInf,   kNaN};

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

/// What a position is turned into.
template <class Traits> struct Place {
    TileOf<Traits> const* tile;
    std::array<int, 3> lijk;
    std::array<float, 3> frac;
};

template <class Traits>
std::optional<Place<Traits>> locate(VoxelTopology<Traits> const& topology, float3 const& position,
                                    int depth) {
    auto const& container = topology.container();
    std::array<float, 3> v;
    std::array<long long, 3> point;
    for (int axis = 0; axis < 3; ++axis) {
        auto const a = static_cast<std::size_t>(axis);
        v[a] = position[axis];
        if (!(std::fabs(v[a]) < 1e9F)) return {};
        point[a] = static_cast<long long>(std::floor(double{v[a]}));
    }
    for (int d = std::min(depth, container.depth()); d >= 0; --d)
        for (long long i = 0; i < container.tileCount(d); ++i) {
            auto const& tile = container.tile(i, d);
            bool inside = true;
            for (int axis = 0; axis < 3; ++axis) {
                long long const above = point[static_cast<std::size_t>(axis)] - tile.tijk()[axis];
                inside = inside && 0 <= above && above < width<Traits>(d);
            }
            if (!inside) continue;
            Place<Traits> place{&tile, {}, {}};
            long long const voxel = width<Traits>(d) / Traits::kSamples;
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

template <class Case> class Linear : public testing::Test {};
TYPED_TEST_SUITE(Linear, Cases);

/// The ring tiles of a channel, each made once.
template <class Traits, class T> class Rings {
public:
    using Ring = RingTile<Traits, T>;
    explicit Rings(RandomVolume<Traits, T> const& scene) : m_scene(scene) {}

    Ring const& of(TreeIndex const& tree) {
        auto const [entry, isNew] = m_rings.try_emplace(std::pair(tree.tile, tree.depth));
        if (!isNew) return entry->second;
        auto const& channel = m_scene.channel;
        auto const type = m_scene.topology.offsetType();
        auto const& tile = m_scene.tree.tile(tree);
        OwnData<Traits, T> const own(channel.samples(tree));
        Ring ring(Ring::Layout::kCount);
        if (tree.depth == channel.minDepth()) {
            fillRingTileFromDefault<Traits, T>(type, m_scene.defaultValue, own, ring);
        } else {
            NeighborData<Traits, T> neighbors;
            for (int n = 0; n < 27; ++n) {
                auto const& beside = m_scene.tree.tileAccessor().tileNeighbor(tile, n);
                if (n != 13 && beside.depth() == tree.depth)
                    neighbors[static_cast<unsigned>(n)] =
                        OwnData<Traits, T>(channel.samples(beside.treeIndex()));
            }
            int3 const c = m_scene.tree.tile(tile.parentTreeIndex()).childIJK(tile.tijk());
            fillRingTile<Traits, T>(type, of(tile.parentTreeIndex()), c.x, c.y, c.z, own, neighbors,
                                    ring);
        }
        return m_rings[{tree.tile, tree.depth}] = std::move(ring);
    }

private:
    RandomVolume<Traits, T> const& m_scene;
    std::map<std::pair<long long, int>, Ring> m_rings;
};

/// Samplers that roam, and their blocks, against the samples around each position to the bit.
TYPED_TEST(Linear, IsTrilinearBetweenHaloOrRingSamples) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int D = Traits::kMaxDepth, kCount = 300;
    constexpr bool kScalar = std::is_same_v<T, float>;
    Random random(11);
    for (VoxelOffsetType type = 0; type < 8; ++type)
        for (int shape = 0; shape < 4; ++shape) {
            SCOPED_TRACE(testing::Message() << "type " << type << " shape " << shape);
            // Few deep tiles, more of them, shallow ones, and a dense tree.
            int const tiles = std::array{12, 60, 60, 0}[unsigned(shape)];
            int const deepest = std::array{D, D, 4, Traits::kBranch == 2 ? 4 : 3}[unsigned(shape)];
            int const minDepth = shape < 2 ? std::array{0, 2, D - 1}[unsigned(type) % 3] : type % 2;
            float const size = std::array{0.25F, 0.3F, 1e-30F}[unsigned(type) % 3];
            RandomVolume<Traits, T> scene(random, tiles, deepest, minDepth, D, type, size);
            scene.compute(scene.halo);
            LinearSampler<Traits, T> direct(*scene.container, scene.topology, scene.channel);
            std::optional<LinearSampler<Traits, T>> halo;
            std::vector<LinearSampler<Traits, T>*> samplers{&direct};
            if (type == 7)
                samplers.push_back(&halo.emplace(*scene.container, scene.topology, scene.halo));
            Rings<Traits, T> rings(scene);
            struct Block {
                int limit;
                std::array<std::vector<float>, 3> at{};
                std::vector<std::array<float, 4>> expected{};  // a scalar's with its gradient
            };
            std::array<Block, 4> byLimit{{{D}, {D - 1}, {2}, {-1}}};
            for (int n = 0; n < kCount; ++n) {
                float3 p = somePosition(scene.tree, random);
                if (n % 8 == 0) p[n / 8 % 3] = kFar[unsigned(n) / 8 % std::size(kFar)];
                auto& [limit, at, all] =
                    byLimit[n % 3 == 0 ? static_cast<unsigned>(random(0, 3)) : 0];
                auto const place = locate(scene.topology, p, limit);
                TreeIndex tree{5, 5};
                int3 lijk;
                float3 frac;
                float scale = 9;
                ASSERT_EQ(direct.locate(p, kLattice, tree, lijk, frac, limit, &scale),
                          place.has_value());
                ASSERT_EQ(tree, place ? place->tile->treeIndex() : TreeIndex());
                for (unsigned a = 0; place && a < 3; ++a) {
                    ASSERT_EQ(lijk[static_cast<int>(a)], place->lijk[a]);
                    ASSERT_TRUE(same(frac[static_cast<int>(a)], place->frac[a]));
                }
                float const step = place ? static_cast<float>(place->tile->voxelDataWidth()) : 1;
                ASSERT_EQ(scale, place ? 1 / (Traits::kBranch == 2 ? 2 * step : step) : 9);
                T expected = scene.defaultValue;
                float3 gradient;
                if (place && place->tile->depth() >= minDepth) {
                    auto const& tile = *place->tile;
                    auto const& l = place->lijk;
                    auto const cell = [&](int x, int y, int z) -> T {
                        int3 const i{l[0] + x, l[1] + y, l[2] + z};
                        return type == 7 ? scene.halo.tileData(tile.treeIndex())(i.x, i.y, i.z)
                                         : rings.of(tile.treeIndex())(i.x, i.y, i.z);
                    };
                    auto const& t = place->frac;
                    expected = trilinear(cell, t);
                    if constexpr (kScalar) {
                        // The differences along an axis, between those along the two others.
                        float const inverse = 1.0F / static_cast<float>(tile.voxelDataWidth()) *
                                              (1 / scene.tree.voxelSize());
                        auto const between = [&](auto const& f, float u, float v) {
                            return inverse *
                                   trilinear(
                                       [&](int, int a, int b) { return f(1, a, b) - f(0, a, b); },
                                       float3{0, u, v});
                        };
                        gradient = {
                            between(cell, t[1], t[2]),
                            between([&](int d, int x, int z) { return cell(x, d, z); }, t[0], t[2]),
                            between([&](int d, int x, int y) { return cell(x, y, d); }, t[0],
                                    t[1])};
                    }
                }
                SCOPED_TRACE(testing::Message() << "at " << p.x << " " << p.y << " " << p.z);
                float3 const world = p * scene.tree.voxelSize();
                AllocationCount const allocations;
                for (auto* sampler : samplers) {
                    ASSERT_TRUE(same(sampler->sample(p, limit, kLattice), expected));
                    if (world * (1 / scene.tree.voxelSize()) == p) {  // not for denormals
                        ASSERT_TRUE(same(sampler->sample(world, limit, kWorld), expected));
                    }
                    if constexpr (kScalar) {
                        float3 g{1, 2, 3};
                        ASSERT_TRUE(same(sampler->sampleGradient(p, limit, kLattice, g), expected));
                        ASSERT_TRUE(same(g, gradient));
                    }
                }
                ASSERT_EQ(allocations.blocks(), 0U);
                for (unsigned a = 0; a < 3; ++a) at[a].push_back(p[static_cast<int>(a)]);
                if constexpr (kScalar)
                    all.push_back({expected, gradient.x, gradient.y, gradient.z});
                else
                    all.push_back({expected.x, expected.y, expected.z});
            }
            for (auto const& [limit, at, all] : byLimit)
                for (auto* sampler : samplers) {
                    std::array<std::array<float, kCount>, 5> out;
                    auto const [x, y, z] = std::array{at[0].data(), at[1].data(), at[2].data()};
                    auto const [a, b, c, d, e] = std::array{
                        out[0].data(), out[1].data(), out[2].data(), out[3].data(), out[4].data()};
                    int const count = static_cast<int>(all.size());
                    if constexpr (kScalar) {
                        sampler->sampleBlock(x, y, z, count, limit, kLattice, {e});
                        sampler->sampleGradientBlock(x, y, z, count, limit, kLattice, a, {b, c, d});
                    } else {
                        sampler->sampleBlock(x, y, z, count, limit, kLattice, {a, b, c});
                    }
                    for (std::size_t n = 0; n < all.size(); ++n) {
                        for (std::size_t k = 0; k < (kScalar ? 4 : 3); ++k)
                            ASSERT_TRUE(same(out[k][n], all[n][k])) << n;
                        ASSERT_TRUE(!kScalar || same(e[n], all[n][0])) << n;
                    }
                }
        }
}

TYPED_TEST(Linear, ReadsTheDefaultWhereNothingIs) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    using Sampler = LinearSampler<Traits, T>;
    Random random(14);
    for (VoxelOffsetType const type : {7, 0}) {
        RandomVolume<Traits, T> const scene(random, 60, 4, 0, Traits::kMaxDepth, type);
        auto const isDefault = [&](Sampler&& sampler, int limit) {
            return same(sampler.sample({}, limit, kWorld), scene.defaultValue);
        };
        auto const direct = [&] { return Sampler(scene.tree, scene.topology, scene.channel); };
        EXPECT_EQ(direct().samplerName(), "kLinear");
        EXPECT_TRUE(isDefault(direct(), -1) && isDefault(direct(), INT_MIN));
        EXPECT_FALSE(isDefault(direct(), INT_MAX));
        if (type != 7) {
            EXPECT_THROW(Sampler(scene.tree, scene.topology, scene.halo), std::invalid_argument);
        }
        // A tree without tiles, and a channel that is not sized to its tree.
        auto const empty = Quern::makePtr<Container<Traits>>(1.0F);
        VoxelTopology<Traits> const topology(empty, type);
        EXPECT_TRUE(isDefault(Sampler(*empty, topology, scene.channel), INT_MAX));
        DataChannel<Traits, T> const unsized("", &scene.defaultValue, 0, false, true, 0, 9);
        EXPECT_TRUE(isDefault(Sampler(scene.tree, scene.topology, unsized), INT_MAX));
    }
}

template <class Traits> class LinearOf : public testing::Test {};
TYPED_TEST_SUITE(LinearOf, Kinds);

/// A voxel size of 0 puts all positions at the origin.
TEST(LinearEdges, VoxelSizeZero) {
    Random random(15);
    RandomVolume<BinaryTraits, float> const scene(random, 60, 28, 0, 28, 7, 0);
    LinearSampler<BinaryTraits, float> sampler(*scene.container, scene.topology, scene.channel);
    float3 g;
    EXPECT_EQ(sampler.sampleGradient({3e5F, -7, 1e38F}, 28, kWorld, g),
              sampler.sample({}, 28, kLattice));
    EXPECT_TRUE(std::isinf(g.x));
    EXPECT_EQ(sampler.sample({kInf, 0, 0}, 28, kWorld), scene.defaultValue);
}

/// Each part of a ring with some of the neighbours: their samples, or what continues the parent.
TYPED_TEST(LinearOf, RingsTakeNeighborsOrContinueTheParent) {
    using Traits = TypeParam;
    using Index = std::array<int, 3>;
    using Ring = RingTile<Traits, float>;
    constexpr int W = Traits::kSamples, B = Traits::kBranch;
    Random random(25);
    Ring parent(Ring::Layout::kCount), ring(Ring::Layout::kCount);
    std::array<std::array<float, Traits::kSampleCount>, 27> tiles;
    for (auto& tile : tiles)
        for (float& sample : tile) sample = random.real(-1, 1);
    std::for_each_n(parent.data(), Ring::Layout::kCount,
                    [&](float& sample) { sample = random.real(-1, 1); });
    for (int round = 0; round < 200; ++round) {
        int const type = round % 8;
        bool const fromDefault = round % 5 == 0;
        auto const onFace = [&](unsigned a) { return (type >> a & 1) != 0; };
        std::array<bool, 27> has;
        NeighborData<Traits, float> neighbors;
        for (std::size_t n = 0; n < 27; ++n) {
            has[n] = !fromDefault && random(0, 9) < round / 20;
            if (has[n]) neighbors[n] = OwnData<Traits, float>(tiles[n].data());
        }
        Index const child{random(0, B - 1), random(0, B - 1), random(0, B - 1)};
        OwnData<Traits, float> const own(tiles[13].data());
        if (fromDefault)
            fillRingTileFromDefault<Traits, float>(type, 0.75F, own, ring);
        else
            fillRingTile<Traits, float>(type, parent, child[0], child[1], child[2], own, neighbors,
                                        ring);
        auto const at = [&](Index const& g, Index const& d, int steps, unsigned axes = 7) {
            auto const in = [&](unsigned a) { return g[a] - (axes >> a & 1 ? steps * d[a] : 0); };
            return double{ring(in(0), in(1), in(2))};
        };
        // The parent on the face, edge or corner beside a sample.
        auto const coarse = [&](Index const& g, Index const& d) {
            Index below;
            std::array<double, 3> t;
            for (unsigned a = 0; a < 3; ++a) {
                double const offset = onFace(a) ? 0 : 0.5;
                double const voxels = d[a] < 0 ? 0 : d[a] > 0 ? W : g[a] + offset;
                double const place = (child[a] * W + voxels) / B - offset;
                below[a] = static_cast<int>(std::floor(place));
                t[a] = place - below[a];
            }
            double sum = 0;
            for (unsigned n = 0; n < 8; ++n) {
                double weight = 1;
                for (unsigned a = 0; a < 3; ++a) weight *= n >> a & 1 ? t[a] : 1 - t[a];
                if (weight > 0)
                    sum += weight * parent(below[0] + int(n & 1), below[1] + int(n >> 1 & 1),
                                           below[2] + int(n >> 2));
            }
            return fromDefault ? 0.75 : sum;
        };
        for (int i = 0; i < (W + 2) * (W + 2) * (W + 2); ++i) {
            Index const g{i % (W + 2) - 1, i / (W + 2) % (W + 2) - 1, i / (W + 2) / (W + 2) - 1};
            Index d;
            bool low = false, face = false, replaced = false;
            unsigned middle = 0;
            int count = 0;
            for (unsigned a = 0; a < 3; ++a) {
                d[a] = g[a] < 0 ? -1 : g[a] == W ? 1 : 0;
                count += d[a] != 0;
                face = face || (d[a] != 0 && onFace(a));
                low = low || (d[a] < 0 && onFace(a));
                replaced = replaced || (g[a] == 0 && onFace(a));
                if (d[a] != 0 && !onFace(a)) middle |= 1U << a;
            }
            bool surrounded = true;
            for (unsigned part = 1; part < 8; ++part) {
                int const n = 13 + (part & 1 ? 9 * d[0] : 0) + (part & 2 ? 3 * d[1] : 0) +
                              (part & 4 ? d[2] : 0);
                surrounded = surrounded && (n == 13 || has[static_cast<unsigned>(n)]);
            }
            // Faces that meet in a replaced sample saw it before and after.
            if (replaced && (count < 2 || fromDefault)) continue;
            SCOPED_TRACE(testing::Message()
                         << "round " << round << " at " << g[0] << " " << g[1] << " " << g[2]);
            if (surrounded) {
                auto const& from = tiles[static_cast<unsigned>(13 + 9 * d[0] + 3 * d[1] + d[2])];
                ASSERT_EQ(at(g, d, 0),
                          from[static_cast<unsigned>(
                              g[0] - d[0] * W + W * (g[1] - d[1] * W + W * (g[2] - d[2] * W)))]);
                continue;
            }
            if (count == 1 && low) {
                ASSERT_NEAR(at(g, d, 1), coarse(g, d), 2e-6);
            }
            if (fromDefault && face) {
                ASSERT_EQ(at(g, d, 0), 0.75);
            } else if (low) {
                ASSERT_NEAR(at(g, d, 0), 2 * at(g, d, 1) - at(g, d, 2), 2e-6);
            } else {
                double sum = 0, cells = 0;  // the mean of the cell around the place is the parent
                for (unsigned axes = 0; axes < 8; ++axes)
                    if ((axes & ~middle) == 0) sum += at(g, d, 1, axes), ++cells;
                ASSERT_NEAR(sum / cells, coarse(g, d), 4e-6);
            }
        }
    }
}

}  // namespace
