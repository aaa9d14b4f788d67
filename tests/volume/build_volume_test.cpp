#include "support/refused.h"
#include "volume/volumes.h"

#include <tbb/global_control.h>
#include <tbb/task.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <atomic>
#include <cstring>
#include <numbers>
#include <stdexcept>

// Volumes made of fields.
namespace {

using namespace volumes;
using support::expectRefused;
using support::FunctionField;
using zel::Box;
using zel::BuildOptions;
using zel::FillOptions;

/// A field of nodes that a batch fuses, and of nodes that it does not.
template <class T> auto curved() {
    auto const ball = makePtr<zel::ScalarFieldSphere>(float3{0.1F, 0, 0.2F}, 0.3F);
    auto const sine = makePtr<zel::ScalarFieldSine>(ball);
    if constexpr (std::is_same_v<T, float>)
        return makePtr<zel::ScalarFieldAdd>(makePtr<zel::ScalarFieldMultiply>(ball, ball), sine);
    else
        return makePtr<zel::VectorFieldFromComponents>(sine, ball, sine);
}

template <class Traits, class T> bool sameSamples(DataChannel<Traits, T> const& a, auto const& b) {
    for (int depth = 0; depth <= Traits::kMaxDepth; ++depth) {
        auto const bytes = static_cast<std::size_t>(a.elementCount(depth)) * sizeof(T);
        if (a.elementCount(depth) != b.elementCount(depth) ||
            (bytes > 0 && std::memcmp(a.samples({0, depth}), b.samples({0, depth}), bytes) != 0))
            return false;
    }
    return true;
}

TEST(FillChannel, GivesTheBitsOfAFunction) {
    forAllKinds([]<class Traits, class T>(Traits, T) {
        auto const field = curved<T>();
        for (VoxelOffsetType const offset : {7, 0, 3}) {
            // A tree with tiles that are covered by finer ones, in part, and not at all.
            auto const volume =
                build<Traits, T>([&](float3 const& p) { return field->eval(p, 0); }, offset);
            int const deepest = volume.container->depth();
            for (auto const& [least, most] : {std::pair{0, deepest}, {1, deepest}, {0, 1}})
                for (bool const parallel : {true, false}) {
                    DataChannel<Traits, T> channel("", nullptr, 0, false, true, least, most);
                    channel.update(*volume.topology);
                    auto expected = channel;
                    fillChannel<Traits, T>(expected, *volume.topology,
                                           [&](float3 const& p) { return field->eval(p, 0); });
                    std::size_t done = 0, all = 0;
                    zel::fillChannel(channel, *volume.topology, *field,
                                     {.parallel = parallel,
                                      .progress = [&](auto d, auto a) { done = d, all = a; }});
                    EXPECT_TRUE((sameSamples<Traits, T>(channel, expected)));
                    EXPECT_EQ(done, channel.size());
                    EXPECT_EQ(all, channel.size());
                }
        }
    });
}

TEST(FillChannel, NumbersSamplesByDepthAndCallsHooksOnce) {
    auto const volume = build<BinaryTraits, float>(plane<float>);
    int pre = 0, post = 0;
    FunctionField field([](float3 const&, long long i) { return static_cast<float>(i); });
    field.pre = [&] { pre += post == 0; };
    field.post = [&] { ++post; };
    zel::fillChannel(*volume.channel, *volume.topology, field);
    EXPECT_TRUE(pre == 1 && post == 1);
    int const deepest = volume.container->depth();
    float const* const samples = volume.channel->samples({0, deepest});
    for (int i = 0; i < volume.channel->elementCount(deepest); ++i)
        ASSERT_EQ(samples[i], static_cast<float>(i));
}

TEST(FillChannel, EndsByErrorsAndRequests) {
    auto const volume = build<BinaryTraits, float>(plane<float>);
    auto& channel = *volume.channel;
    for (bool const parallel : {true, false}) {
        std::stop_source source;
        FillOptions const options{.parallel = parallel, .stop = source.get_token()};
        int post = 0;
        FunctionField field([](float3 const&, long long) -> float { throw std::domain_error(""); });
        field.post = [&] { ++post; };
        auto const fill = [&] { zel::fillChannel(channel, *volume.topology, field, options); };
        EXPECT_THROW(fill(), std::domain_error);
        field.value = [](float3 const&, long long) {
            tbb::task::current_context()->cancel_group_execution();
            return 1.0F;
        };
        EXPECT_THROW(fill(), std::runtime_error);
        std::atomic<int> calls = 0;
        field.value = [&](float3 const&, long long) {
            if (++calls == 1000) source.request_stop();
            return 1.0F;
        };
        EXPECT_THROW(fill(), zel::Stopped);
        EXPECT_LE(calls, 1000 + 1024 * tbb::this_task_arena::max_concurrency());
        EXPECT_EQ(post, 0);
    }
    DataChannel<BinaryTraits, float> empty("c", nullptr, 0, false, true, 0, 3);
    EXPECT_THROW(zel::fillChannel(empty, *volume.topology, *curved<float>()),
                 std::invalid_argument);
    volume.container->addTile(-9, -9, -9, BinaryTraits::kMaxDepth);  // the channel is older now
    EXPECT_THROW(zel::fillChannel(channel, *volume.topology, *curved<float>()),
                 std::invalid_argument);
}

/// The number of lattice points of a box at which |field| is below the band, but that are in no
/// tile of the deepest depth. The others must have the value of the field.
template <class Traits>
int lostPoints(zel::ScalarField const& field, Volume<Traits, float> const& volume, Box const& box,
               float band) {
    float const size = volume.container->voxelSize();
    auto const accessor = volume.container->tileAccessor();
    auto const first = [&](float low) { return static_cast<int>(std::ceil(low / size)); };
    auto const last = [&](float high) { return static_cast<int>(std::floor(high / size)); };
    int lost = 0;
    for (int k = first(box.low.z); k <= last(box.high.z); ++k)
        for (int j = first(box.low.y); j <= last(box.high.y); ++j)
            for (int i = first(box.low.x); i <= last(box.high.x); ++i) {
                float3 const p =
                    float3{static_cast<float>(i), static_cast<float>(j), static_cast<float>(k)} *
                    size;
                float const value = field.eval(p, 0);
                if (!(std::fabs(value) < band * size)) continue;
                auto const& tile = accessor.tile(i, j, k, Traits::kMaxDepth);
                auto const samples = std::as_const(*volume.channel).tileData(tile.treeIndex());
                if (tile.depth() < Traits::kMaxDepth)
                    ++lost;
                else
                    EXPECT_EQ(samples(int3{i, j, k} - tile.tijk()), value);
            }
    return lost;
}

template <class Traits> class BuildVolume : public testing::Test {};
using Kinds = testing::Types<BinaryTraits, QuinaryTraits>;
TYPED_TEST_SUITE(BuildVolume, Kinds);

TYPED_TEST(BuildVolume, KeepsTheWholeBandOfSpheresAndLittleElse) {
    constexpr int kDeepest = TypeParam::kMaxDepth;
    std::mt19937 random(20261126);
    auto const number = [&](float low, float high) {
        return std::uniform_real_distribution<float>(low, high)(random);
    };
    for (int round = 0; round < 12; ++round) {
        // From spheres of less than a voxel to spheres larger than the box.
        float const size = number(0.01F, 0.03F), radius = std::pow(10.0F, number(-2.5F, 0.3F));
        float const band = round % 3 == 0 ? number(0.9F, 1) : number(1, 6);
        float3 const centre{number(-0.4F, 0.4F), number(-0.4F, 0.4F), number(-0.4F, 0.4F)};
        Box const box{{-0.8F, number(-0.8F, 0), -0.6F}, {number(0.1F, 0.8F), 0.6F, 0.7F}};
        zel::ScalarFieldSphere const sphere(centre, radius);
        auto const volume = zel::buildVolume<TypeParam>(sphere, box, size, band, {.outside = 3});
        EXPECT_EQ(lostPoints(sphere, volume, box, band), 0) << radius << ' ' << band;
        EXPECT_EQ(volume.channel->defaultValue(), 3);
        // Each deepest tile meets the box, and is no further from the band than its diagonal.
        float const width = static_cast<float>(TypeParam::kSamples) * size;
        for (long long i = 0; i < volume.container->tileCount(kDeepest); ++i) {
            int3 const low = volume.container->tile(i, kDeepest).tijk();
            float3 const at{static_cast<float>(low.x), static_cast<float>(low.y),
                            static_cast<float>(low.z)};
            for (int a = 0; a < 3; ++a)
                ASSERT_TRUE(at[a] * size <= box.high[a] && at[a] * size + width > box.low[a]);
            float const value = sphere.eval(at * size + float3{1, 1, 1} * (width / 2), 0);
            ASSERT_LT(std::fabs(value), band * size + 2 * width);
        }
    }
}

TEST(BuildVolumes, KeepTheBandOfOtherFields) {
    constexpr int kDeepest = BinaryTraits::kMaxDepth;
    float const size = 1.0F / 64, nan = support::kNaN;
    Box const box{{-1, -1, -1}, {1, 0.75F, 0.75F}};  // its high faces are faces of tiles
    auto const scaled = [](zel::ScalarPtr const& field, float by) {
        return makePtr<zel::ScalarFieldMultiply>(field, makePtr<zel::ScalarFieldConstant>(by));
    };
    zel::ScalarPtr const ball = makePtr<zel::ScalarFieldSphere>(float3{0.25F, 0, 0.25F}, 0.5F);
    // Waves as long as the tiles that are judged first, so that all nine values are the same.
    float const frequency = 2 * std::numbers::pi_v<float> / (8 * size);
    zel::ScalarPtr const waves = makePtr<zel::ScalarFieldAdd>(
        makePtr<zel::ScalarFieldSine>(scaled(makePtr<zel::ScalarFieldXPosition>(), frequency)),
        makePtr<zel::ScalarFieldConstant>(0.5F));
    // A step, and a field without gradient that has no values on one side.
    zel::ScalarPtr const step = makePtr<FunctionField>(
        [](float3 const& p, long long) { return p.x + p.y > 0.03F ? 5.0F : -2.0F; });
    auto const half = makePtr<FunctionField>(
        [&](float3 const& p, long long i) { return p.z > 0.1F ? nan : ball->eval(p, i); });
    half->gradient = [=](float3 const&, long long) { return float3{nan, nan, nan}; };
    struct Case {
        zel::ScalarPtr field;
        int least, most;  // tiles of the deepest depth
    };
    for (auto const& [field, least, most] : {Case{scaled(ball, 40), 1000, 8000},
                                             {waves, 8000, 33 * 28 * 28},
                                             {step, 1000, 8000},
                                             {half, 1000, 8000},
                                             {makePtr<zel::ScalarFieldConstant>(nan), 0, 0}}) {
        auto const volume = zel::buildVolume<BinaryTraits>(*field, box, size, 4);
        EXPECT_EQ(lostPoints(*field, volume, box, 4), 0);
        EXPECT_GE(volume.container->tileCount(kDeepest), least);
        EXPECT_LE(volume.container->tileCount(kDeepest), most);
    }
}

TYPED_TEST(BuildVolume, GivesTheSameBitsOnOneThreadAndEvaluatesLittle) {
    Box const box{{-1, -1, -1}, {1, 1, 1}};
    std::atomic<unsigned long long> calls = 0;
    int pre = 0, post = 0;
    FunctionField counted([&](float3 const& p, long long) {
        ++calls;
        return std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z) - 0.7F;
    });
    counted.gradient = [](float3 const& p, long long) { return p; };
    counted.pre = [&] { ++pre; };
    counted.post = [&] { ++post; };
    std::size_t done = 0, all = 1;
    auto const volume = zel::buildVolume<TypeParam>(
        counted, box, 0.02F, 3,
        {.progress = [&](std::size_t d, std::size_t a) { done = d, all = a; }});
    EXPECT_EQ(done, all);
    EXPECT_TRUE(pre == 1 && post == 1);
    EXPECT_LT(calls, 2 * volume.channel->size());
    tbb::global_control const one(tbb::global_control::max_allowed_parallelism, 1);
    for (bool const parallel : {true, false}) {
        auto const again =
            zel::buildVolume<TypeParam>(counted, box, 0.02F, 3, {.parallel = parallel});
        EXPECT_TRUE((sameSamples<TypeParam, float>(*again.channel, *volume.channel)));
        for (long long i = 0; i < volume.container->tileCount(TypeParam::kMaxDepth); ++i)
            ASSERT_EQ(again.container->tile(i, TypeParam::kMaxDepth).m_parentIndex,
                      volume.container->tile(i, TypeParam::kMaxDepth).m_parentIndex);
    }
    constexpr int kLeast = TypeParam::kMaxDepth - 1;
    auto const limited = zel::buildVolume<TypeParam>(counted, box, 0.02F, 3,
                                                     {.minDepth = kLeast, .maxDepth = kLeast});
    int const across = TypeParam::kBranch == 2 ? 14 : 5;  // tiles that are 0.16, or 0.5 wide
    EXPECT_EQ(limited.container->depth(), kLeast);
    EXPECT_EQ(limited.container->tileCount(kLeast), across * across * across);
}

TEST(BuildVolumes, RefuseParametersByName) {
    zel::ScalarFieldSphere const ball({}, 1);
    Box const box{{-1, -1, -1}, {1, 1, 1}};
    float const inf = support::kInf, nan = support::kNaN;
    struct Case {
        Box box;
        float voxelSize, band;
        BuildOptions options;
        char const* text;
    };
    for (Case const& wrong : {Case{box, 0, 3, {}, "voxelSize of 0"},
                              {box, -0.5F, 3, {}, "voxelSize of -0.5"},
                              {box, nan, 3, {}, "voxelSize of nan"},
                              {box, 0.1F, -2, {}, "band of -2"},
                              {box, 0.1F, nan, {}, "band of nan"},
                              {{{0, nan, 0}, {1, 1, 1}}, 0.1F, 3, {}, "(0, nan, 0)"},
                              {{{0, 0, 0}, {1, inf, 1}}, 0.1F, 3, {}, "(1, inf, 1) is not finite"},
                              {{{0, 2, 0}, {1, 2, 1}}, 0.1F, 3, {}, "(0, 2, 0) to (1, 2, 1) is em"},
                              {{{0, 0, 0}, {1, 6e8F, 1}}, 1, 3, {}, "(1, 6e+08, 1) is too large"},
                              {box, 1e-30F, 3, {}, "voxelSize of 1e-30"},
                              {box, 0.1F, 3, {.minDepth = -1}, "minDepth of -1"},
                              {box, 0.1F, 3, {.minDepth = 9, .maxDepth = 8}, "minDepth of 9"},
                              {box, 0.1F, 3, {.maxDepth = 29}, "maxDepth of 29"}})
        expectRefused<std::invalid_argument>(
            [&] {
                zel::buildVolume<BinaryTraits>(ball, wrong.box, wrong.voxelSize, wrong.band,
                                               wrong.options);
            },
            wrong.text);
    EXPECT_THROW(zel::buildVolume<BinaryTraits>(ball, box, 0.1F, 3, {.maxTiles = 50}),
                 std::length_error);
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_THROW(zel::buildVolume<BinaryTraits>(ball, box, 0.1F, 3, {.stop = stopped.get_token()}),
                 zel::Stopped);
}

TEST(VolumeObject, HoldsChannelsOverOneTree) {
    Box const box{{-1, -1, -1}, {1, 1, 1}};
    zel::ScalarFieldSphere const sphere({}, 0.6F);
    zel::VectorFieldPosition const place;
    auto const check = [&]<class Traits>(Traits) {
        auto const ball = zel::buildVolume<Traits>(sphere, box, 0.02F, 3);
        auto const at = zel::buildVolume(ball, place, {7, 8, 9});
        auto const other = zel::buildVolume(at, sphere, 5);
        EXPECT_TRUE((sameSamples<Traits, float>(*other.channel, *ball.channel)));
        Orvane::Object object;
        Orvane::Geometry::setVolume(object, zel::toVolumeObject({{"ball", ball}, {"at", at}}));
        for (SamplerType const type : kTypes) {
            Scalar const scalar(object, "ball", type);
            Vector const vector(object, "at", type);
            EXPECT_EQ(bool(vector.state<Traits>().haloChannel), type == SamplerType::kLinear);
            for (float3 const& p : {float3{0.6F, 0, 0}, {0.34F, -0.35F, 0.34F}}) {
                EXPECT_NEAR(scalar.eval(p, 0), sphere.eval(p, 0), 2e-3F);
                EXPECT_TRUE(same(vector.eval(p, 0), p, 1e-5F));
                Orvane::Math::float3x3 gradient;
                EXPECT_TRUE(same(vector.held().exactGradient(p, gradient), vector.eval(p, 0)));
                EXPECT_TRUE(same(gradient, Orvane::Math::identity(), 1e-3F));
            }
            EXPECT_TRUE(same(vector.eval({support::kInf, 0, 0}, 0), float3{7, 8, 9}));
        }
        return std::pair(ball, at);
    };
    auto const [ball, at] = check(BinaryTraits());
    auto const quinary = check(QuinaryTraits()).first;
    auto const refused = [](std::vector<zel::NamedVolume> const& volumes, char const* part) {
        expectRefused<std::invalid_argument>([&] { zel::toVolumeObject(volumes); }, part);
    };
    refused({}, "no volume");
    refused({{"a", ball}, {"b", zel::buildVolume<BinaryTraits>(sphere, box, 0.02F, 3)}},
            "'b' and 'a' have different trees");
    refused({{"a", ball}, {"b", quinary}}, "'b' and 'a' have different trees");
    auto moved = at;
    moved.topology = makePtr<VoxelTopology<BinaryTraits>>(at.container, 0);
    refused({{"a", ball}, {"b", moved}}, "'b' and 'a' have different topologies");
    refused({{"a", ball}, {"a", at}}, "two channels have the name 'a'");
    refused({{"", ball}}, "empty name");
    refused({{Orvane::Geometry::sVoxelComp, ball}}, "reserved");
    refused({{"a", Volume<BinaryTraits, float>()}}, "'a' do not belong together");
    EXPECT_THROW(zel::buildVolume(Volume<BinaryTraits, float>(), place), std::invalid_argument);
}

}  // namespace
