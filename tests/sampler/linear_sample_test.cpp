#include <limits>
#include <utility>

#include "sampler/reference.h"
#include "support/probe.h"
#include "zel/sampler/voxel_sampler_linear.h"

namespace {

using namespace reference;
using support::kInf;
using support::kNaN;
using support::same;

template <class T> float component(T const& value, int c) {
    return reinterpret_cast<float const*>(&value)[c];
}
template <class T> constexpr int kComponents = sizeof(T) / sizeof(float);

constexpr int kWorld = 2, kLattice = 0;

/// Positions that no tree covers.
std::vector<float3> outside() {
    std::vector<float3> all;
    for (float const far : {6.2e8F, -6.2e8F, 1.1e9F, 2147483648.0F, -2147483648.0F, 3e9F, 1e38F,
                            -1e38F, kInf, -kInf, kNaN})
        for (int axis = 0; axis < 3; ++axis) {
            all.push_back({1, 2, 3});
            all.back()[axis] = far;
        }
    return all;
}

template <class Pair> class LinearSample : public testing::Test {};
template <class K, class V> struct Of {
    using Kind = K;
    using Value = V;
};
using Pairs = testing::Types<Of<BinaryTraits, float>, Of<BinaryTraits, float3>,
                             Of<QuinaryTraits, float>, Of<QuinaryTraits, float3>>;
TYPED_TEST_SUITE(LinearSample, Pairs);

/// Both forms, and the reference, at random positions.
TYPED_TEST(LinearSample, OnCornersIsTheReferenceToTheBit) {
    using Traits = typename TypeParam::Kind;
    using T = typename TypeParam::Value;
    constexpr int D = Traits::kMaxDepth;
    Random random(11);
    for (Shape const shape : kShapes)
        for (int const minDepth : {0, 2, D - 1}) {
            Scene<Traits, T> const scene(shape, 7, random, minDepth, minDepth == 0);
            LinearSampler<Traits, T> halo(*scene.container, scene.topology, scene.halo);
            LinearSampler<Traits, T> direct(*scene.container, scene.topology, scene.channel);
            Corners<Traits, T> const corners(scene);
            for (int n = 0; n < 600; ++n) {
                float3 const p = scene.position(random);
                int const limit = n % 3 == 0 ? random(D - 3, D) : D;
                auto const place = locate(scene.topology, p, false, limit);
                T expected = scene.defaultValue;
                float3 gradient;
                if (place && place->tile->depth() >= minDepth) {
                    auto const& tile = *place->tile;
                    std::array<T, 8> cell;
                    for (unsigned i = 0; i < 8; ++i) {
                        std::array<long long, 3> point;
                        for (unsigned a = 0; a < 3; ++a)
                            point[a] = tile.tijk()[static_cast<int>(a)] +
                                       (place->lijk[a] + static_cast<int>(i >> a & 1)) *
                                           (long long){tile.voxelDataWidth()};
                        // The interpolation is exact, that of the halo up to rounding.
                        cell[i] = std::as_const(scene.halo)
                                      .tileData(tile.treeIndex())(
                                          place->lijk[0] + static_cast<int>(i & 1),
                                          place->lijk[1] + static_cast<int>(i >> 1 & 1),
                                          place->lijk[2] + static_cast<int>(i >> 2));
                        ASSERT_TRUE(same(cell[i], corners.at(tile.depth(), point), 1e-6F));
                    }
                    auto const& t = place->frac;
                    expected = trilinear(
                        [&](int x, int y, int z) {
                            return cell[static_cast<unsigned>(x + 2 * y + 4 * z)];
                        },
                        t);
                    if constexpr (kComponents<T> == 1) {
                        // The differences along an axis, between those along the two others.
                        float const width = static_cast<float>(tile.voxelDataWidth());
                        for (unsigned a = 0; a < 3; ++a) {
                            unsigned const u = a == 0 ? 1 : 0, w = a == 2 ? 1 : 2;
                            auto const difference = [&](int, int y, int z) {
                                unsigned const i =
                                    static_cast<unsigned>(y) << u | static_cast<unsigned>(z) << w;
                                return cell[i | 1U << a] - cell[i];
                            };
                            gradient[static_cast<int>(a)] =
                                trilinear(difference, {0, t[u], t[w]}) *
                                (1.0F / width * (1 / scene.container->voxelSize()));
                        }
                    }
                }
                SCOPED_TRACE(testing::Message() << "shape " << static_cast<int>(shape) << " at "
                                                << p.x << " " << p.y << " " << p.z);
                float3 const world = p * scene.container->voxelSize();
                ASSERT_TRUE(same(halo.sample(p, limit, kLattice), expected));
                if (world * (1 / scene.container->voxelSize()) == p) {  // not for denormals
                    ASSERT_TRUE(same(halo.sample(world, limit, kWorld), expected));
                }
                ASSERT_TRUE(same(direct.sample(p, limit, kLattice), expected));
                if constexpr (kComponents<T> == 1)
                    for (auto* sampler : {&halo, &direct}) {
                        float3 g{1, 2, 3};
                        ASSERT_TRUE(same(sampler->sampleGradient(p, limit, kLattice, g), expected));
                        ASSERT_TRUE(same(g, gradient));
                    }
            }
        }
}

TYPED_TEST(LinearSample, InsideVoxelsIsTheReference) {
    using Traits = typename TypeParam::Kind;
    using T = typename TypeParam::Value;
    constexpr int D = Traits::kMaxDepth, W = Traits::kSamples;
    Random random(12);
    int ringReads = 0;
    for (VoxelOffsetType type = 0; type < 7; ++type)
        for (Shape const shape : kShapes) {
            Scene<Traits, T> const scene(shape, type, random, type == 3 ? D - 1 : 0);
            LinearSampler<Traits, T> sampler(*scene.container, scene.topology, scene.channel);
            std::vector<Rings<Traits, T>> rings;
            for (int c = 0; c < kComponents<T>; ++c) rings.emplace_back(scene, c);
            for (int n = 0; n < 150; ++n) {
                float3 const p = scene.position(random);
                int const limit = n % 3 == 0 ? D - 1 : D;
                auto const place = locate(scene.topology, p, false, limit);
                T const got = sampler.sample(p, limit, kLattice);
                if (!place || place->tile->depth() < scene.channel.minDepth()) {
                    ASSERT_TRUE(same(got, scene.defaultValue));
                    continue;
                }
                bool inside = true;
                for (int const l : place->lijk) inside = inside && 0 < l && l < W - 1;
                ringReads += !inside;
                auto const& l = place->lijk;
                for (int c = 0; c < kComponents<T>; ++c) {
                    auto& ring = rings[static_cast<unsigned>(c)];
                    auto const tree = place->tile->treeIndex();
                    Bounded const expected = trilinear(
                        [&](int x, int y, int z) {
                            std::array<int, 3> const at{l[0] + x, l[1] + y, l[2] + z};
                            return inside ? ring.own(tree, at) : ring.of(tree).at(at);
                        },
                        place->frac);
                    ASSERT_TRUE(expected.near(component(got, c)))
                        << "type " << type << ", shape " << static_cast<int>(shape) << " at " << p.x
                        << " " << p.y << " " << p.z << ": " << component(got, c) << ", expected "
                        << expected.value;
                }
            }
        }
    EXPECT_GT(ringReads, 1000);
}

/// What `locate` tells, for the base itself and to the bit.
TYPED_TEST(LinearSample, LocatesTileVoxelAndFraction) {
    using Traits = typename TypeParam::Kind;
    Random random(13);
    for (float const voxelSize : {0.25F, 0.3F, 1e-30F})
        for (VoxelOffsetType const type : {0, 2, 5, 7}) {
            Scene<Traits, float> const scene(Shape::kCheckerboard, type, random, 0, type == 2,
                                             voxelSize);
            VoxelSampler<Traits, float, float3> base(*scene.container, scene.topology);
            EXPECT_EQ(base.samplerName(), "kNone");
            for (int n = 0; n < 500; ++n) {
                float3 const p = scene.position(random) * voxelSize;
                int const depth = n % 2 == 0 ? Traits::kMaxDepth : random(-1, Traits::kMaxDepth);
                auto const expected = locate(scene.topology, p, true, depth);
                TreeIndex tree{5, 5};
                int3 lijk{9, 9, 9};
                float3 frac{9, 9, 9};
                float scale = 9;
                ASSERT_EQ(base.locate(p, kWorld, tree, lijk, frac, depth, &scale),
                          expected.has_value());
                ASSERT_EQ(tree, expected ? expected->tile->treeIndex() : TreeIndex());
                for (int axis = 0; axis < 3; ++axis) {
                    auto const a = static_cast<unsigned>(axis);
                    ASSERT_EQ(lijk[axis], expected ? expected->lijk[a] : 9);
                    ASSERT_TRUE(same(frac[axis], expected ? expected->frac[a] : 9));
                }
                float const width =
                    expected ? static_cast<float>(expected->tile->voxelDataWidth()) : 1;
                ASSERT_EQ(scale, expected ? 1 / (Traits::kBranch == 2 ? 2 * width : width) : 9);
            }
        }
}

TYPED_TEST(LinearSample, OutsideIsTheDefault) {
    using Traits = typename TypeParam::Kind;
    using T = typename TypeParam::Value;
    constexpr int D = Traits::kMaxDepth;
    Random random(14);
    for (VoxelOffsetType const type : {7, 0}) {
        Scene<Traits, T> const scene(Shape::kBorders, type, random);
        std::vector<LinearSampler<Traits, T>*> samplers;
        LinearSampler<Traits, T> direct(*scene.container, scene.topology, scene.channel);
        EXPECT_EQ(direct.samplerName(), "kLinear");
        std::optional<LinearSampler<Traits, T>> halo;
        samplers.push_back(&direct);
        if (type == 7) {
            samplers.push_back(&halo.emplace(*scene.container, scene.topology, scene.halo));
        } else {
            EXPECT_THROW(halo.emplace(*scene.container, scene.topology, scene.halo),
                         std::invalid_argument);
        }
        auto const isDefault = [&](auto& sampler, float3 const& p, int limit, int space) {
            EXPECT_TRUE(same(sampler.sample(p, limit, space), scene.defaultValue))
                << p.x << " " << p.y << " " << p.z << " to depth " << limit;
            if constexpr (kComponents<T> == 1) {
                float3 g{1, 2, 3};
                EXPECT_EQ(sampler.sampleGradient(p, limit, space, g), scene.defaultValue);
                EXPECT_EQ(g, float3());
            }
        };
        for (auto* sampler : samplers) {
            for (float3 const& p : outside())
                for (int const space : {kWorld, kLattice, -7})
                    if (space != kWorld || !(std::fabs(p.x + p.y + p.z) < 1.2e9F))
                        isDefault(*sampler, p, D, space);
            for (int const limit : {-1, std::numeric_limits<int>::min()})
                isDefault(*sampler, {}, limit, kWorld);
            EXPECT_FALSE(same(sampler->sample({}, std::numeric_limits<int>::max(), kWorld),
                              scene.defaultValue));
        }
        // A tree without tiles, and a channel that is not sized to its tree.
        auto const empty = Quern::makePtr<Container<Traits>>(1.0F);
        VoxelTopology<Traits> const topology(empty, type);
        LinearSampler<Traits, T> nothing(*empty, topology, scene.channel);
        isDefault(nothing, {1, 2, 3}, D, kWorld);
        DataChannel<Traits, T> const unsized("", &scene.defaultValue, 0, false, true, 0, D);
        LinearSampler<Traits, T> bare(*scene.container, scene.topology, unsized);
        isDefault(bare, {1, 2, 3}, D, kWorld);
    }
}

/// A voxel size of 0 puts all positions at the origin.
TEST(LinearSampleEdges, VoxelSizeZero) {
    Random random(15);
    Scene<BinaryTraits, float> const scene(Shape::kUniform, 7, random, 0, true, 0);
    LinearSampler<BinaryTraits, float> sampler(*scene.container, scene.topology, scene.halo);
    float const atOrigin = sampler.sample({}, 28, kLattice);
    float3 g;
    EXPECT_EQ(sampler.sampleGradient({3e5F, -7, 1e38F}, 28, kWorld, g), atOrigin);
    EXPECT_TRUE(std::isinf(g.x));
    EXPECT_EQ(sampler.sample({kInf, 0, 0}, 28, kWorld), scene.defaultValue);
}

/// In steps within one voxel the patch is linear along each axis.
TEST(LinearSampleEdges, GradientIsThatOfThePatch) {
    auto const check = [](auto const& scene, auto& sampler, Random& random) {
        for (int n = 0; n < 400; ++n) {
            auto const& container = *scene.container;
            int const depth = random(0, container.depth());
            auto const& tile =
                container.tile(random(0, static_cast<int>(container.tileCount(depth)) - 1), depth);
            auto const width = static_cast<float>(tile.voxelDataWidth());
            float3 p;
            for (int axis = 0; axis < 3; ++axis)
                p[axis] =
                    static_cast<float>(tile.tijk()[axis]) +
                    width * (0.25F + 0.5F * static_cast<float>(random(0, 2 * scene.kSamples - 1)));
            float3 g;
            sampler.sampleGradient(p, depth, kLattice, g);
            for (int axis = 0; axis < 3; ++axis) {
                float3 low = p, high = p;
                low[axis] -= width / 8;
                high[axis] += width / 8;
                double const slope = (double{sampler.sample(high, depth, kLattice)} -
                                      double{sampler.sample(low, depth, kLattice)}) /
                                     (double{high[axis]} - double{low[axis]});
                double const inVoxels =
                    double{g[axis]} * double{width} * double{container.voxelSize()};
                ASSERT_NEAR(inVoxels, slope * double{width}, 2e-5) << "depth " << depth;
            }
        }
    };
    Random random(16);
    Scene<BinaryTraits, float> const binary(Shape::kRefined, 7, random, 0, true);
    LinearSampler<BinaryTraits, float> first(*binary.container, binary.topology, binary.halo);
    check(binary, first, random);
    Scene<BinaryTraits, float> const middle(Shape::kRefined, 0, random, 0, true);
    LinearSampler<BinaryTraits, float> second(*middle.container, middle.topology, middle.channel);
    check(middle, second, random);
    Scene<QuinaryTraits, float> const quinary(Shape::kRefined, 7, random);
    LinearSampler<QuinaryTraits, float> third(*quinary.container, quinary.topology,
                                              quinary.channel);
    check(quinary, third, random);
}

}  // namespace
