// Measures the tile tree: look-ups at random points of a band of about ten million voxels around a
// sphere, at random points of a wide sheet and along scan lines, one by one and in batches, against
// a flat hash map of the same tiles by corner; building, filling and restricting the band; and
// computing its halo.

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>
#include <tbb/info.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "ratio_table.h"
#include "zel_platform/orvane_geometry_volume/tile_tree.h"

namespace {

using namespace ORV::TileTree3D;

/// A band of tiles of the deepest depth around a sphere of radius 1, in a tree with a far larger
/// root, as usual for volumes.
template <class Traits> class Band {
public:
    static constexpr float kVoxelSize = Traits::kBranch == 2 ? 1.0f / 230 : 1.0f / 220;
    static constexpr float kHalfWidth = 4.5f * kVoxelSize;

    Band() : volume(build()) {}

    /// Whether the band intersects a box, by the range of distances from the sphere's surface in
    /// it.
    static bool wanted(float3 const& low, float3 const& high, int) {
        float least = 0, most = 0;
        for (int axis = 0; axis < 3; ++axis) {
            float const a = std::abs(low[axis]), b = std::abs(high[axis]);
            float const near = low[axis] <= 0 && high[axis] >= 0 ? 0 : std::min(a, b);
            float const far = std::max(a, b);
            least += near * near;
            most += far * far;
        }
        return std::sqrt(least) <= 1 + kHalfWidth && std::sqrt(most) >= 1 - kHalfWidth;
    }
    static float distance(float3 const& p) {
        return std::sqrt(p.x * p.x + p.y * p.y + p.z * p.z) - 1;
    }
    static Volume<Traits, float> build() {
        return buildVolume<Traits, float>(kVoxelSize, Traits::kMaxDepth, wanted, distance);
    }

    long long voxels() const { return volume.channel->elementCount(Traits::kMaxDepth); }

    Volume<Traits, float> volume;
};

template <class Traits> Band<Traits> const& band() {
    static Band<Traits> const made;
    return made;
}

/// A sheet of 600 by 600 tiles of the last depth but one: far wider than deep.
template <class Traits> Container<Traits> const& sheet() {
    static Container<Traits> const made = [] {
        constexpr int kDepth = Traits::kMaxDepth - 1, kWidth = Traits::tileWidth(kDepth);
        Container<Traits> container(1);
        for (int x = -300; x < 300; ++x)
            for (int y = -300; y < 300; ++y) container.addTile(x * kWidth, y * kWidth, 0, kDepth);
        return container;
    }();
    return made;
}

/// Random points in the deepest tiles of the band, points along lines through the sphere's bounding
/// box, and random points in the sheet.
enum class Where { kBand, kScan, kSheet };

template <class Traits> Container<Traits> const& treeOf(Where where) {
    return where == Where::kSheet ? sheet<Traits>() : *band<Traits>().volume.container;
}

template <class Traits> std::vector<int3> points(Where where) {
    constexpr std::size_t kCount = std::size_t{1} << 20;
    std::vector<int3> points;
    points.reserve(kCount);
    std::mt19937 engine(7);
    if (where != Where::kScan) {
        auto const& container = treeOf<Traits>(where);
        int const depth = container.depth();
        auto const tiles = static_cast<std::uint64_t>(container.tileCount(depth));
        auto const width = static_cast<unsigned>(Traits::tileWidth(depth));
        for (std::size_t i = 0; i < kCount; ++i) {
            auto const tile = static_cast<long long>(engine() % tiles);
            int3 const& corner = container.tile(tile, depth).tijk();
            auto const in = [&] { return static_cast<int>(engine() % width); };
            points.push_back(corner + int3{in(), in(), in()});
        }
        return points;
    }
    auto const reach = static_cast<int>(1.1f / Band<Traits>::kVoxelSize);
    while (points.size() < kCount) {
        auto const place = [&] {
            return static_cast<int>(engine() % static_cast<unsigned>(2 * reach)) - reach;
        };
        int const j = place(), k = place();
        for (int i = -reach; i < reach; ++i) points.push_back({i, j, k});
    }
    return points;
}

/// Reports memory: of the tree alone, divided by the tiles of the deepest depth; and of the tree
/// and the samples of all depths, divided by the voxels of the deepest depth.
template <class Traits>
void countBytes(benchmark::State& state, Container<Traits> const& container, double bytes) {
    auto const leaves = static_cast<double>(container.tileCount(container.depth()));
    auto const samples = static_cast<double>(container.size()) * Traits::kSampleCount * 4;
    state.counters["bytes_per_leaf"] = bytes / leaves;
    state.counters["bytes_per_voxel"] = (bytes + samples) / (leaves * Traits::kSampleCount);
}

/// A look-up as in a sampler.
template <class Traits, Where where> void tree(benchmark::State& state) {
    auto const at = points<Traits>(where);
    auto const& container = treeOf<Traits>(where);
    auto const accessor = container.tileAccessor();
    for (auto _ : state) {
        long long sum = 0;
        for (int3 const& p : at) {
            auto const& tile = accessor.tile(p.x, p.y, p.z, Traits::kMaxDepth);
            sum += tile.m_index + tile.m_depth;
        }
        benchmark::DoNotOptimize(sum);
    }
    countItems(state, static_cast<double>(at.size()));
    unsigned long long used = 0, held = 0;
    container.memUse(used, held, true);
    countBytes(state, container, static_cast<double>(held));
}

/// Look-ups of the deepest tiles over 128 points at a time, as in a sampler of batches.
template <class Traits, Where where> void batches(benchmark::State& state) {
    auto const at = points<Traits>(where);
    auto const& container = treeOf<Traits>(where);
    int const depth = container.depth();
    Internal::TilesBelow<Traits> const tilesBelow(static_cast<unsigned>(depth));
    constexpr int kPoints = Container<Traits>::kMaxPoints;
    std::array<std::uint32_t, kPoints> x, y, z;
    std::array<TileRun, kPoints> runs;
    auto const sumOfPlaces = [&](int3 const* p) {
        for (std::size_t i = 0; i < kPoints; ++i) {
            x[i] = tilesBelow(Traits::aboveRoot(p[i].x));
            y[i] = tilesBelow(Traits::aboveRoot(p[i].y));
            z[i] = tilesBelow(Traits::aboveRoot(p[i].z));
        }
        int const count =
            container.findTiles(depth, x.data(), y.data(), z.data(), kPoints, runs.data());
        long long sum = 0;
        int begin = 0;
        for (std::size_t r = 0; r < static_cast<std::size_t>(count); ++r) {
            sum += (runs[r].end - begin) * (static_cast<long long>(runs[r].tile) + depth);
            begin = runs[r].end;
        }
        return sum;
    };
    auto const accessor = container.tileAccessor();
    for (std::size_t i = 0; i < at.size(); i += kPoints) {
        long long sum = 0;
        for (std::size_t n = i; n < i + kPoints; ++n) {
            auto const& tile = accessor.tile(at[n].x, at[n].y, at[n].z, depth);
            sum += tile.m_index + tile.m_depth;
        }
        if (sumOfPlaces(&at[i]) != sum) state.SkipWithError("the batch and the tree differ");
    }
    for (auto _ : state) {
        long long sum = 0;
        for (std::size_t i = 0; i < at.size(); i += kPoints) sum += sumOfPlaces(&at[i]);
        benchmark::DoNotOptimize(sum);
    }
    countItems(state, static_cast<double>(at.size()));
}

/// A hash table of all tiles of a tree, with open addressing and at most half full. It maps a
/// corner and a depth to the place within the depth. A look-up tries the deepest depth first.
template <class Traits> class FlatMap {
public:
    explicit FlatMap(Container<Traits> const& container) {
        std::size_t size = 1;
        while (size < 2 * container.size()) size *= 2;
        m_slots.resize(size);
        for (int depth = 0; depth <= container.depth(); ++depth)
            for (long long i = 0; i < container.tileCount(depth); ++i) {
                auto const& tile = container.tile(i, depth);
                std::size_t at = hash(tile.m_tijk, depth);
                while (m_slots[at].depth >= 0) at = (at + 1) & (size - 1);
                m_slots[at] = {tile.m_tijk, depth, static_cast<std::int32_t>(i)};
            }
    }

    /// The sum of the place and the depth of the tile over a point, or -1 if there is none.
    long long find(int3 const& p, int depth) const {
        for (int d = depth; d >= 0; --d) {
            auto const width = static_cast<std::uint32_t>(Traits::tileWidth(d));
            auto const down = [&](int c) {
                return static_cast<int>(static_cast<std::uint32_t>(c) -
                                        Traits::aboveRoot(c) % width);
            };
            int3 const corner{down(p.x), down(p.y), down(p.z)};
            for (std::size_t at = hash(corner, d); m_slots[at].depth >= 0;
                 at = (at + 1) & (m_slots.size() - 1))
                if (m_slots[at].depth == d && m_slots[at].corner == corner)
                    return m_slots[at].index + d;
        }
        return -1;
    }
    std::size_t bytes() const { return m_slots.size() * sizeof(Slot); }

private:
    struct Slot {
        int3 corner;
        int depth = -1;
        std::int32_t index = 0;
    };

    std::size_t hash(int3 const& corner, int depth) const {
        auto const word = [](int c) { return std::uint64_t{static_cast<std::uint32_t>(c)}; };
        std::uint64_t h = word(corner.x) * 0x9e3779b97f4a7c15U;
        h = (h ^ (h >> 29) ^ word(corner.y)) * 0xbf58476d1ce4e5b9U;
        h = (h ^ (h >> 32) ^ word(corner.z) ^ word(depth) << 40) * 0x94d049bb133111ebU;
        return (h ^ (h >> 31)) & (m_slots.size() - 1);
    }

    std::vector<Slot> m_slots;
};

template <class Traits, Where where> void flatMap(benchmark::State& state) {
    auto const at = points<Traits>(where);
    auto const& container = treeOf<Traits>(where);
    FlatMap<Traits> const map(container);
    auto const accessor = container.tileAccessor();
    int const deepest = container.depth();
    for (int3 const& p : at) {
        auto const& tile = accessor.tile(p.x, p.y, p.z, deepest);
        if (map.find(p, deepest) != tile.m_index + tile.m_depth)
            state.SkipWithError("the map and the tree differ");
    }
    for (auto _ : state) {
        long long sum = 0;
        for (int3 const& p : at) sum += map.find(p, deepest);
        benchmark::DoNotOptimize(sum);
    }
    countItems(state, static_cast<double>(at.size()));
    countBytes(state, container, static_cast<double>(map.bytes()));
}

/// Runs on `threads` threads, or on all if that is 0.
class Threads {
public:
    explicit Threads(std::int64_t threads)
        : m_control(tbb::global_control::max_allowed_parallelism,
                    threads > 0 ? static_cast<std::size_t>(threads)
                                : static_cast<std::size_t>(tbb::info::default_concurrency())) {}

private:
    tbb::global_control m_control;
};

template <class Traits> void countVoxels(benchmark::State& state) {
    auto const voxels = static_cast<double>(band<Traits>().voxels());
    state.counters["Mvoxels"] = voxels * 1e-6;
    countItems(state, voxels);
}

template <class Traits> void refine(benchmark::State& state) {
    Threads const threads(state.range(0));
    for (auto _ : state) {
        Container<Traits> container(Band<Traits>::kVoxelSize);
        refineTree(container, Traits::kMaxDepth, Band<Traits>::wanted);
        benchmark::DoNotOptimize(container.size());
    }
    countVoxels<Traits>(state);
}

template <class Traits> void fillAndRestrict(benchmark::State& state) {
    Threads const threads(state.range(0));
    auto const volume = band<Traits>().volume;
    for (auto _ : state)
        fillChannel<Traits, float>(*volume.channel, *volume.topology, Band<Traits>::distance);
    countVoxels<Traits>(state);
}

template <class Traits> void halo(benchmark::State& state) {
    Threads const threads(state.range(0));
    auto const& volume = band<Traits>().volume;
    float const zero = 0;
    HaloChannel<Traits, float> halo("", &zero, 0, false, true, 0, Traits::kMaxDepth);
    halo.update(*volume.topology);
    for (auto _ : state)
        computeHalo<Traits, float, 0, 0, 1, 0>(*volume.channel, *volume.container, halo, 0,
                                               Traits::kMaxDepth);
    countVoxels<Traits>(state);
}

#define ZEL_BENCH(Kind, name)                                                                      \
    BENCHMARK(tree<Kind, Where::kBand>)->Name("random/tree/" name);                                \
    BENCHMARK(batches<Kind, Where::kBand>)->Name("random/tree_batch/" name);                       \
    BENCHMARK(flatMap<Kind, Where::kBand>)->Name("random/flat_map/" name);                         \
    BENCHMARK(tree<Kind, Where::kSheet>)->Name("wide/tree/" name);                                 \
    BENCHMARK(batches<Kind, Where::kSheet>)->Name("wide/tree_batch/" name);                        \
    BENCHMARK(flatMap<Kind, Where::kSheet>)->Name("wide/flat_map/" name);                          \
    BENCHMARK(tree<Kind, Where::kScan>)->Name("scan/tree/" name);                                  \
    BENCHMARK(flatMap<Kind, Where::kScan>)->Name("scan/flat_map/" name);                           \
    BENCHMARK(refine<Kind>)                                                                        \
        ->Name("refine/" name)                                                                     \
        ->ArgName("threads")                                                                       \
        ->Arg(1)                                                                                   \
        ->Arg(0)                                                                                   \
        ->UseRealTime();                                                                           \
    BENCHMARK(fillAndRestrict<Kind>)                                                               \
        ->Name("fill_restrict/" name)                                                              \
        ->ArgName("threads")                                                                       \
        ->Arg(1)                                                                                   \
        ->Arg(0)                                                                                   \
        ->UseRealTime();                                                                           \
    BENCHMARK(halo<Kind>)->Name("halo/" name)->ArgName("threads")->Arg(1)->Arg(0)->UseRealTime()

ZEL_BENCH(BinaryTraits, "2-tree");
ZEL_BENCH(QuinaryTraits, "5-tree");

}  // namespace
