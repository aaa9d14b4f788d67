#include "platform/volume/trees.h"

#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>

namespace {

using namespace trees;

template <class T> T number(Random& random) {
    if constexpr (std::is_same_v<T, float>)
        return random.real(-1, 1);
    else
        return {random.real(-1, 1), random.real(-1, 1), random.real(-1, 1)};
}
float distance(float a, float b) {
    return std::abs(a - b);
}
float distance(float3 const& a, float3 const& b) {
    return std::max({std::abs(a.x - b.x), std::abs(a.y - b.y), std::abs(a.z - b.z)});
}

/// The halo rule, read slowly and with no tile in mind: what the tree says at a place of one depth.
/// A place is counted in voxels of the depth from the root's corner, and is where a sample sits but
/// for the offset.
template <class Traits, class T> class Field {
public:
    Field(Container<Traits> const& tree, DataChannel<Traits, T> const& channel, int type)
        : m_tree(tree), m_channel(channel), m_offset(VoxelTopology<Traits>::offsetOf(type)) {}

    using Place = std::array<long long, 3>;

    /// The halo sample of a depth at a place.
    T sample(Place const& voxel, int depth) const {
        long long const w = width<Traits>(depth) / Traits::kSamples;
        long long const x = kLow<Traits> + voxel[0] * w, y = kLow<Traits> + voxel[1] * w,
                        z = kLow<Traits> + voxel[2] * w;
        bool const inside = inRoot<Traits>(x, y, z);
        if (inside && depth >= m_channel.minDepth() && depth <= m_channel.depth()) {
            auto const& tile = m_tree.tileAccessor().tile(static_cast<int>(x), static_cast<int>(y),
                                                          static_cast<int>(z), depth);
            if (tile.depth() == depth) {
                int3 const p{static_cast<int>(x), static_cast<int>(y), static_cast<int>(z)};
                return m_channel.tileData(tile.treeIndex())(tile.childDataIJK(p));
            }
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
        Place place;
        for (int a = 0; a < 3; ++a)
            place[static_cast<unsigned>(a)] =
                (tile.tijk()[a] - kLow<Traits>) / (width<Traits>(tile.depth()) / Traits::kSamples);
        return place;
    }

private:
    Container<Traits> const& m_tree;
    DataChannel<Traits, T> const& m_channel;
    float3 m_offset;
};

/// A random tree with random samples, of which a channel has the depths `low` to `high`.
template <class Traits, class T> struct RandomVolume {
    RandomVolume(Random& random, int tiles, int deepest, int low, int high)
        : volume(random, tiles, deepest), defaultValue(number<T>(random)),
          channel("", &defaultValue, 0, false, true, low, high),
          halo("", &defaultValue, 0, false, true, 0, Traits::kMaxDepth) {
        channel.updateTo(volume.tree);
        halo.updateTo(volume.tree);
        for (int d = low; d <= high; ++d)
            for (long long i = 0; i < channel.tileCount(d); ++i)
                for (int n = 0; n < Traits::kSampleCount; ++n)
                    channel.samples({i, d})[n] = number<T>(random);
    }

    /// Compares the halo of a tile, from index `first` to `last` along each axis, with the field.
    template <class Data>
    void expect(Field<Traits, T> const& field, TileOf<Traits> const& tile, Data const& got,
                int first, int last) const {
        auto const voxel = field.first(tile);
        int const d = tile.depth();
        for (int z = first; z <= last; ++z)
            for (int y = first; y <= last; ++y)
                for (int x = first; x <= last; ++x) {
                    T const expected =
                        d < channel.minDepth()
                            ? defaultValue
                            : field.sample({voxel[0] + x, voxel[1] + y, voxel[2] + z}, d);
                    ASSERT_LE(distance(got(x, y, z), expected), 1e-5f)
                        << "depth " << d << " at " << x << " " << y << " " << z;
                }
    }

    RandomTree<Traits> volume;
    T defaultValue;
    DataChannel<Traits, T> channel;
    HaloChannel<Traits, T> halo;
};

/// The neighbours that tiles had, by direction.
struct Seen {
    template <class Traits> void add(RandomTree<Traits> const& made, TileOf<Traits> const& tile) {
        auto const accessor = made.tree.tileAccessor();
        for (std::size_t n = 0; n < 27; ++n) {
            auto const& neighbor = accessor.tileNeighbor(tile, static_cast<int>(n));
            if (!neighbor.exists())
                ++absent[n];
            else if (neighbor.depth() < tile.depth())
                ++coarser[n];
            else
                ++(neighbor.m_children ? finer : equal)[n];
        }
    }
    void expectAll() const {
        for (std::size_t n = 0; n < 27; ++n) {
            if (n == 13) continue;
            EXPECT_TRUE(equal[n] > 0 && finer[n] > 0 && coarser[n] > 0 && absent[n] > 0)
                << n << ": " << equal[n] << " " << finer[n] << " " << coarser[n] << " "
                << absent[n];
        }
    }

    std::array<int, 27> equal{}, finer{}, coarser{}, absent{};
};

template <class Case> class Halo : public testing::Test {};
using Cases = testing::Types<std::pair<BinaryTraits, float>, std::pair<BinaryTraits, float3>,
                             std::pair<QuinaryTraits, float>, std::pair<QuinaryTraits, float3>>;
TYPED_TEST_SUITE(Halo, Cases);

template <class Traits> constexpr int kDense = Traits::kBranch == 2 ? 5 : 3;

TYPED_TEST(Halo, AgreesWithTheFieldReadSlowly) {
    using Traits = typename TypeParam::first_type;
    using T = typename TypeParam::second_type;
    constexpr int W = Traits::kSamples;
    Random random(61);
    struct Shape {
        int tiles, deepest, low, high;
    };
    // Deep trees, and shallow ones in which neighbours are many; channels of fewer depths.
    for (auto const& [tiles, deepest, low, high] :
         {Shape{60, 4, 0, 4}, Shape{60, 3, 0, 9}, Shape{60, 4, 2, 3}, Shape{60, 4, 1, 1},
          Shape{12, Traits::kMaxDepth, 0, Traits::kMaxDepth},
          Shape{0, kDense<Traits>, 0, kDense<Traits>}}) {
        RandomVolume<Traits, T> made(random, tiles, deepest, low, high);
        auto const& tree = made.volume.tree;
        Field<Traits, T> const field(tree, made.channel, 7);
        computeHalo<Traits, T, 0, 0, 1, 0>(made.channel, tree, made.halo, 0, Traits::kMaxDepth);
        auto accessor = tree.tileAccessor();
        TileData<T, W + 1, 0, 0> single((W + 1) * (W + 1) * (W + 1)), parent, none;
        for (int d = 0; d <= tree.depth(); ++d)
            for (long long i = 0; i < tree.tileCount(d); ++i) {
                auto const& tile = tree.tile(i, d);
                auto const halo = made.halo.tileData(TreeIndex{i, d});
                ASSERT_NO_FATAL_FAILURE(made.expect(field, tile, halo, 0, W));
                // One tile at a time, the same bits.
                bool const usable = d > 0 && d > made.channel.minDepth();
                if (usable) parent.setFlatPointer(made.halo.samples(tile.parentTreeIndex()));
                setHaloTile<Traits, T, 0, 0, 1, 0>(
                    tile, usable ? &tree.tile(tile.parentTreeIndex()) : nullptr, made.channel,
                    usable ? parent : none, 2, accessor, single);
                ASSERT_EQ(std::memcmp(single.data(), halo.data(),
                                      sizeof(T) * (W + 1) * (W + 1) * (W + 1)),
                          0);
            }
        RandomVolume<Traits, T> const other(random, 5, 2, 0, 2);
        auto const refused = [&](auto const& channel, int mode, auto& out) {
            EXPECT_THROW((setHaloTile<Traits, T, 0, 0, 1, 0>(tree.tile(0, 0), nullptr, channel,
                                                             none, mode, accessor, out)),
                         std::invalid_argument);
        };
        refused(other.channel, 2, single), refused(made.channel, 4, single),
            refused(made.channel, 2, none);
    }
}

TYPED_TEST(Halo, AllRoundAgreesForEveryOffsetAndNeighbor) {
    using Traits = typename TypeParam::first_type;
    using T = typename TypeParam::second_type;
    constexpr int W = Traits::kSamples;
    Random random(62);
    Seen seen;
    for (int type = 0; type < 9; ++type) {
        bool const dense = type >= 7;
        int const offset = type == 8 ? 5 : type;
        RandomVolume<Traits, T> made(random, dense ? 0 : 25, dense ? kDense<Traits> : 4,
                                     dense ? 0 : type % 3, dense ? 9 : 4 - type % 2);
        auto const& tree = made.volume.tree;
        Field<Traits, T> const field(tree, made.channel, offset);
        auto accessor = tree.tileAccessor();
        TileData<T, W + 1, 1, 0> halo((W + 3) * (W + 3) * (W + 3)), scaled(halo);
        for (int d = 0; d <= tree.depth(); ++d)
            for (long long i = 0; i < tree.tileCount(d); i += 3) {
                if (dense) seen.add(made.volume, tree.tile(i, d));
                setHaloTile<Traits, T, 0, 1, 0, 1>({i, d}, made.channel, 4, 15, accessor, halo, T(),
                                                   1, offset);
                ASSERT_NO_FATAL_FAILURE(made.expect(field, tree.tile(i, d), halo, -1, W + 1));
                T const shift = number<T>(random);
                setHaloTile<Traits, T, 0, 1, 0, 1>({i, d}, made.channel, 4, 15, accessor, scaled,
                                                   shift, 2, offset);
                ASSERT_EQ(scaled(-1, 0, W + 1), shift + halo(-1, 0, W + 1) * 2.0f);
            }
        setHaloTile<Traits, T, 0, 1, 0, 1>(TreeIndex(), made.channel, 4, 15, accessor, halo, T(), 1,
                                           offset);
        EXPECT_EQ(halo(0, 0, 0), made.defaultValue);
        RandomVolume<Traits, T> const other(random, 5, 2, 0, 2);
        auto const refused = [&](auto const& channel, int mode, int haloType, int at, auto& out) {
            EXPECT_THROW((setHaloTile<Traits, T, 0, 1, 0, 1>({0, 0}, channel, mode, haloType,
                                                             accessor, out, T(), 1, at)),
                         std::invalid_argument);
        };
        TileData<T, W + 1, 1, 0> none;
        refused(made.channel, 2, 15, 7, halo), refused(made.channel, 4, 7, 7, halo),
            refused(made.channel, 4, 15, 8, halo), refused(made.channel, 4, 15, 7, none),
            refused(other.channel, 4, 15, 7, halo);
    }
    seen.expectAll();
}

template <class Traits> class HaloOf : public testing::Test {};
TYPED_TEST_SUITE(HaloOf, Kinds);

TYPED_TEST(HaloOf, DependsOnNeitherThreadsNorDepthsNorWhatWasThere) {
    using Traits = TypeParam;
    Random random(63);
    RandomVolume<Traits, float> made(random, 80, 5, 1, 5);
    auto const& tree = made.volume.tree;
    auto const compute = [&](HaloChannel<Traits, float>& halo, int low, int high) {
        computeHalo<Traits, float, 0, 0, 1, 0>(made.channel, tree, halo, low, high);
    };
    compute(made.halo, 0, 5);
    auto const same = [&](HaloChannel<Traits, float> const& halo, int low) {
        for (int d = low; d <= 5; ++d)
            for (long long i = 0; i < tree.tileCount(d); ++i)
                if (std::memcmp(halo.samples({i, d}), made.halo.samples({i, d}),
                                sizeof(float) * HaloChannel<Traits, float>::Layout::kCount) != 0)
                    return false;
        return true;
    };
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (int const low : {0, 1, 3, 5}) {
        HaloChannel<Traits, float> all("", &nan, 0, false, true, 0, 5);
        HaloChannel<Traits, float> few("", &nan, 0, false, true, low, 5);
        all.updateTo(tree);
        few.updateTo(tree);
        tbb::global_control const one(tbb::global_control::max_allowed_parallelism,
                                      low == 3 ? 1 : 4);
        compute(all, low, 5);
        compute(few, 0, 5);
        EXPECT_TRUE(same(all, low) && same(few, low)) << low;
        if (low > 0) {
            EXPECT_TRUE(std::isnan(*all.samples({0, low - 1})));
        }
    }
}

/// Refines towards a point, so that faces of all kinds of jumps arise.
RefinePredicate towards(float3 const& point) {
    return [point](float3 const& low, float3 const& high, int) {
        for (int a = 0; a < 3; ++a) {
            float const margin = (high[a] - low[a]) * 0.75f;
            if (point[a] < low[a] - margin || point[a] > high[a] + margin) return false;
        }
        return true;
    };
}

TYPED_TEST(HaloOf, ALinearFunctionIsContinuousAcrossEveryFace) {
    using Traits = TypeParam;
    constexpr int W = Traits::kSamples;
    Random random(64);
    auto const rootWidth = static_cast<float>(width<Traits>(0));
    float const size = 1 / rootWidth;
    float3 const a{1.5f, -2, 0.75f};
    auto const linear = [&](float3 const& p) { return a.x * p.x + a.y * p.y + a.z * p.z + 0.25f; };
    for (int round = 0; round < 4; ++round) {
        float3 const at{random.real(-0.3f, 0.3f), random.real(-0.3f, 0.3f),
                        random.real(-0.3f, 0.3f)};
        auto const volume = buildVolume<Traits, float>(size, 4, towards(at), linear);
        auto const& tree = *volume.container;
        HaloChannel<Traits, float> halo("", nullptr, 0, false, true, 0, 4);
        halo.update(*volume.topology);
        computeHalo<Traits, float, 0, 0, 1, 0>(*volume.channel, tree, halo, 0, 4);
        auto const accessor = tree.tileAccessor();
        /// Trilinear in the tile that is deepest at `p + side`, at lattice place `p`.
        auto const read = [&](std::array<double, 3> const& p, std::array<int, 3> const& side) {
            int3 i;
            for (unsigned c = 0; c < 3; ++c)
                i[static_cast<int>(c)] = static_cast<int>(std::floor(p[c])) + side[c];
            auto const& tile = accessor.tile(i.x, i.y, i.z, 4);
            auto const data = std::as_const(halo).tileData(tile.treeIndex());
            std::array<int, 3> cell;
            std::array<double, 3> f;
            for (unsigned c = 0; c < 3; ++c) {
                double const l = (p[c] - tile.tijk()[static_cast<int>(c)]) / tile.voxelDataWidth();
                cell[c] = std::clamp(static_cast<int>(l), 0, W - 1);
                f[c] = l - cell[c];
            }
            double value = 0;
            for (int n = 0; n < 8; ++n)
                value += data(cell[0] + (n & 1), cell[1] + (n >> 1 & 1), cell[2] + (n >> 2)) *
                         ((n & 1) != 0 ? f[0] : 1 - f[0]) * ((n >> 1 & 1) != 0 ? f[1] : 1 - f[1]) *
                         ((n >> 2) != 0 ? f[2] : 1 - f[2]);
            return value;
        };
        int jumps = 0;
        for (int d = 1; d <= tree.depth(); ++d)
            for (long long t = 0; t < tree.tileCount(d); ++t) {
                auto const& tile = tree.tile(t, d);
                for (int n = 0; n < 12; ++n) {
                    unsigned const axis = static_cast<unsigned>(n) % 3;
                    std::array<double, 3> p;
                    std::array<int, 3> below{0, 0, 0};
                    for (unsigned c = 0; c < 3; ++c)
                        p[c] =
                            tile.tijk()[static_cast<int>(c)] +
                            static_cast<double>(random.real(0.01f, 0.99f)) * tile.tileVoxelWidth();
                    bool const high = n % 2 == 1;
                    p[axis] = tile.tijk()[static_cast<int>(axis)] +
                              (high ? double(tile.tileVoxelWidth()) : 0.0);
                    below[axis] = -1;
                    // Away from the root's outer voxels, where the default value comes in.
                    if (std::any_of(p.begin(), p.end(), [&](double c) {
                            return std::abs(c) > 0.24 * static_cast<double>(rootWidth);
                        }))
                        continue;
                    double const exact =
                        a.x * p[0] * size + a.y * p[1] * size + a.z * p[2] * size + 0.25;
                    double const under = read(p, below), over = read(p, {0, 0, 0});
                    ASSERT_NEAR(under, over, 2e-6) << "depth " << d;
                    ASSERT_NEAR(over, exact, 2e-6);
                    int3 const i{static_cast<int>(std::floor(p[0])),
                                 static_cast<int>(std::floor(p[1])),
                                 static_cast<int>(std::floor(p[2]))};
                    int const upper = accessor.tile(i.x, i.y, i.z, 4).depth();
                    jumps +=
                        accessor.tile(i.x + below[0], i.y + below[1], i.z + below[2], 4).depth() !=
                        upper;
                }
            }
        EXPECT_GT(jumps, 10);
    }
}

TYPED_TEST(HaloOf, StaysFiniteBetweenTheLargestSamples) {
    using Traits = TypeParam;
    Random random(65);
    RandomVolume<Traits, float> made(random, 40, 4, 0, 4);
    auto const& tree = made.volume.tree;
    for (int d = 0; d <= 4; ++d)
        for (long long i = 0; i < tree.tileCount(d); ++i)
            for (int n = 0; n < Traits::kSampleCount; ++n)
                made.channel.samples({i, d})[n] = random(0, 1) == 1 ? 3e38f : -3e38f;
    computeHalo<Traits, float, 0, 0, 1, 0>(made.channel, tree, made.halo, 0, 4);
    for (int d = 0; d <= 4; ++d)
        for (long long i = 0; i < made.halo.elementCount(d); ++i)
            ASSERT_LE(std::abs(made.halo.samples({0, d})[i]), 3.0001e38f);
}

thread_local bool insideHalo = false;

// Of a thread that keeps offering tasks, some run on a thread that waits for the end of a halo,
// unless that takes up none but its own.
TEST(HaloTasks, AreAloneOnTheCallersThread) {
    tbb::global_control const control(tbb::global_control::max_allowed_parallelism, 4);
    tbb::task_arena arena(4);
    Random random(66);
    RandomVolume<BinaryTraits, float> made(random, 0, 5, 0, 5);
    std::atomic<bool> started = false, done = false;
    std::atomic<int> foreign = 0, offered = 0;
    arena.execute([&] {
        tbb::task_group group;
        group.run([&] {
            started = true;
            while (!done) {
                group.run([&] { foreign += insideHalo, ++offered; });
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        });
        while (!started) std::this_thread::yield();
        insideHalo = true;
        for (int i = 0; i < 100; ++i)
            computeHalo<BinaryTraits, float, 0, 0, 1, 0>(made.channel, made.volume.tree, made.halo,
                                                         0, 5);
        insideHalo = false;
        done = true;
        group.wait();
    });
    EXPECT_GT(offered, 0);
    EXPECT_EQ(foreign, 0);
}

}  // namespace
