#include <map>
#include <optional>

#include "benchmarks/allocation_count.h"
#include "sampler/linear_reference.h"
#include "support/probe.h"
#include "zel/sampler/linear/ring_fill.h"
#include "zel/sampler/linear/voxel_sampler_linear.h"

namespace {

using namespace trees;
using support::kInf;
using support::same;

constexpr int kWorld = 2, kLattice = 0;

template <class Case> class Linear : public testing::Test {};
TYPED_TEST_SUITE(Linear, Cases);

/// Checks each sample of a ring: that of the neighbour, or what continues the parent's ring, for
/// which the default value stands where there is none.
template <class Traits, class T>
void checkRing(RingTile<Traits, T> const& ring, NeighborData<Traits, T> const& tiles,
               RingTile<Traits, T> const* parent, int3 const& child, int type,
               T const& defaultValue) {
    constexpr int W = Traits::kSamples, B = Traits::kBranch;
    auto const onFace = [&](int a) { return (type >> a & 1) != 0; };
    float largest = 1;  // the levels above may have been extrapolated far
    for (int i = 0; i < RingTile<Traits, T>::Layout::kCount; ++i)
        for (auto const* tile : {&ring, parent})
            if (tile) largest = std::max(largest, distance(tile->data()[i], T{}));
    auto const isNear = [&](T const& a, T const& b) { return distance(a, b) < 4e-6F * largest; };
    for (int i = 0; i < (W + 2) * (W + 2) * (W + 2); ++i) {
        int3 const g = inCube(i, W + 2, -1);
        int3 d;
        bool low = false, face = false, replaced = false;
        int middle = 0, count = 0;
        for (int a = 0; a < 3; ++a) {
            d[a] = g[a] < 0 ? -1 : g[a] == W ? 1 : 0;
            count += d[a] != 0;
            face = face || (d[a] != 0 && onFace(a));
            low = low || (d[a] < 0 && onFace(a));
            replaced = replaced || (g[a] == 0 && onFace(a));
            if (d[a] != 0 && !onFace(a)) middle |= 1 << a;
        }
        auto const direction = [&](int axes) {
            return static_cast<unsigned>(13 + (axes & 1 ? 9 * d.x : 0) + (axes & 2 ? 3 * d.y : 0) +
                                         (axes & 4 ? d.z : 0));
        };
        bool surrounded = true;
        for (int axes = 1; axes < 8; ++axes) surrounded = surrounded && tiles[direction(axes)];
        // The ring some steps inward from this sample, along some axes.
        auto const at = [&](int steps, int axes = 7) {
            auto const in = [&](int a) { return g[a] - (axes >> a & 1 ? steps * d[a] : 0); };
            return ring(in(0), in(1), in(2));
        };
        // The parent on the face, edge or corner beside the sample.
        auto const coarse = [&] {
            if (!parent) return defaultValue;
            int3 below;
            float3 between;
            for (int a = 0; a < 3; ++a) {
                float const offset = onFace(a) ? 0.0F : 0.5F;
                float const side = d[a] < 0 ? 0 : W;
                float const voxels = d[a] == 0 ? static_cast<float>(g[a]) + offset : side;
                float const place = (static_cast<float>(child[a] * W) + voxels) / B - offset;
                below[a] = static_cast<int>(std::floor(place));
                between[a] = place - std::floor(place);
            }
            auto const sample = [&](int x, int y, int z) {
                int3 const p = below + int3{x, y, z};
                return (*parent)(std::min(p.x, W), std::min(p.y, W), std::min(p.z, W));
            };
            return trilinear(sample, between);
        };
        // Faces that meet in a replaced sample saw it before and after.
        if (replaced && (count < 2 || !parent)) continue;
        SCOPED_TRACE(g.x + 10 * g.y + 100 * g.z);
        if (surrounded) {
            int3 const in = g - d * W;
            ASSERT_TRUE(same(at(0), tiles[direction(7)](in.x, in.y, in.z)));
            continue;
        }
        if (count == 1 && low) {
            ASSERT_TRUE(isNear(at(1), coarse()));
        }
        if (!parent && face) {
            ASSERT_TRUE(same(at(0), defaultValue));
        } else if (low) {
            ASSERT_TRUE(isNear(at(0), 2.0F * at(1) - at(2)));
        } else {
            T sum{};
            float cells = 0;  // the mean of the cell around the place is the parent
            for (int axes = 0; axes < 8; ++axes)
                if ((axes & ~middle) == 0) sum = sum + at(1, axes), ++cells;
            ASSERT_TRUE(isNear(sum / cells, coarse()));
        }
    }
}

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
        NeighborData<Traits, T> tiles;
        tiles[13] = own;
        Ring ring(Ring::Layout::kCount);
        if (tree.depth == channel.minDepth()) {
            fillRingTileFromDefault<Traits, T>(type, m_scene.defaultValue, own, ring);
            checkRing<Traits, T>(ring, tiles, nullptr, {}, type, m_scene.defaultValue);
        } else {
            for (int n = 0; n < 27; ++n) {
                auto const& beside = m_scene.tree.tileAccessor().tileNeighbor(tile, n);
                if (n != 13 && beside.depth() == tree.depth)
                    tiles[static_cast<unsigned>(n)] =
                        OwnData<Traits, T>(channel.samples(beside.treeIndex()));
            }
            Ring const& parent = of(tile.parentTreeIndex());
            int3 const c = m_scene.tree.tile(tile.parentTreeIndex()).childIJK(tile.tijk());
            fillRingTile<Traits, T>(type, parent, c.x, c.y, c.z, own, tiles, ring);
            checkRing<Traits, T>(ring, tiles, &parent, c, type, m_scene.defaultValue);
        }
        return m_rings[{tree.tile, tree.depth}] = std::move(ring);
    }

private:
    RandomVolume<Traits, T> const& m_scene;
    std::map<std::pair<long long, int>, Ring> m_rings;
};

/// Samplers that roam against the samples around each position, to the bit. Their blocks are those
/// of FrameOfSmallTrees, and with a halo those of the nodes.
TYPED_TEST(Linear, IsTrilinearBetweenHaloOrRingSamples) {
    using Traits = typename TypeParam::Traits;
    using T = typename TypeParam::Value;
    constexpr int D = Traits::kMaxDepth;
    using Sample = LinearSample<T>;
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
            Sample got;  // has the gradient before, and is to be set whole
            for (int n = 0; n < 300; ++n) {
                float3 p = somePosition(scene.tree, random);
                if (n % 8 == 0) p[n / 8 % 3] = kFar[unsigned(n) / 8 % std::size(kFar)];
                int const limit = n % 3 == 0 ? std::array{D, D - 1, 2, -1}[unsigned(n) / 3 % 4] : D;
                auto const place = locate(scene.topology, p, limit);
                TreeIndex tree{5, 5};
                int3 lijk;
                float3 frac;
                float scale = 9;
                ASSERT_EQ(direct.locate(p, kLattice, tree, lijk, frac, limit, &scale),
                          place.has_value());
                ASSERT_EQ(tree, place ? place->tile->treeIndex() : TreeIndex());
                if (place) {
                    ASSERT_EQ(lijk, place->lijk);
                    ASSERT_TRUE(same(frac, place->frac));
                }
                float const step = place ? static_cast<float>(place->tile->voxelDataWidth()) : 1;
                ASSERT_EQ(scale, place ? 1 / (Traits::kBranch == 2 ? 2 * step : step) : 9);
                Sample expected{scene.defaultValue};
                if (place && place->tile->depth() >= minDepth) {
                    auto const& tile = *place->tile;
                    auto const cell = [&](int x, int y, int z) -> T {
                        int3 const i = place->lijk + int3{x, y, z};
                        return type == 7 ? scene.halo.tileData(tile.treeIndex())(i.x, i.y, i.z)
                                         : rings.of(tile.treeIndex())(i.x, i.y, i.z);
                    };
                    expected = interpolate<T>(*place, scene.tree.voxelSize(), cell);
                }
                SCOPED_TRACE(testing::Message() << "at " << p.x << " " << p.y << " " << p.z);
                float3 const world = p * scene.tree.voxelSize();
                AllocationCount const allocations;
                for (auto* sampler : samplers) {
                    ASSERT_TRUE(same(sampler->sample(p, limit, kLattice), expected.value));
                    if (world * (1 / scene.tree.voxelSize()) == p) {  // not for denormals
                        ASSERT_TRUE(same(sampler->sample(world, limit, kWorld), expected.value));
                    }
                    got.value = sampler->sampleGradient(p, limit, kLattice, got.gradient);
                    ASSERT_TRUE(same(got, expected));
                }
                ASSERT_EQ(allocations.blocks(), 0U);
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

}  // namespace
