// Measures the linear sampler in a volume that is filled throughout: along scan lines in half-voxel
// steps in a volume that fits the caches, and at random points in a volume that does not. Compared
// with it are a trilinear sampler, written by hand, of a dense array with the same samples; and,
// where OpenVDB is installed, its box sampler with an accessor.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dense_volume.h"
#include "ratio_table.h"
#include "zel/sampler/linear/voxel_sampler_linear.h"
#include "zel_platform/orvane_geometry_volume/tile_tree.h"

#ifdef ZEL_WITH_OPENVDB
#include "openvdb_baseline.h"
#endif

namespace {

using namespace ORV::TileTree3D;

constexpr float kVoxelSize = 0.1F;
constexpr int kWorld = 2;

/// Positions in world units, with an array for each component.
struct Positions {
    std::vector<float> x, y, z;

    int count() const { return static_cast<int>(x.size()); }
    float3 operator[](int i) const {
        auto const n = static_cast<std::size_t>(i);
        return {x[n], y[n], z[n]};
    }
    void add(float i, float j, float k) {
        x.push_back(i * kVoxelSize);
        y.push_back(j * kVoxelSize);
        z.push_back(k * kVoxelSize);
    }
};

/// Positions inside a cube of `size` voxels whose low corner is at `low`: along lines, with half a
/// voxel between positions and between lines, or at random.
Positions makePositions(bool scan, int low, int size, int count) {
    Positions p;
    auto const first = static_cast<float>(low) + 0.25F;
    if (scan) {
        int const steps = 2 * size - 2;
        for (int n = 0; n < count; ++n)
            p.add(first + 0.5F * static_cast<float>(n % steps),
                  first + 0.5F * static_cast<float>(n / steps % steps),
                  first + 0.5F * static_cast<float>(n / steps / steps + steps / 2));
        return p;
    }
    std::mt19937 engine(3);
    std::uniform_real_distribution<float> inside(first, first + static_cast<float>(size) - 1.75F);
    while (p.count() < count) {
        float const i = inside(engine), j = inside(engine);
        p.add(i, j, inside(engine));
    }
    return p;
}

/// A method of reading samples at all positions.
struct Reader {
    std::string name;
    /// Reads the samples at all positions, and returns their sum.
    std::function<double()> run;
};

/// Calls `read(position)` for all positions, and returns the sum of all floats in the results.
template <class Read> double sumOf(Positions const& at, Read const& read) {
    float sum = 0;
    for (int i = 0, n = at.count(); i < n; ++i) {
        auto const result = read(at[i]);
        using Floats = std::array<float, sizeof result / sizeof(float)>;
        for (float const part : std::bit_cast<Floats>(result)) sum += part;
    }
    return static_cast<double>(sum);
}

/// A volume, the same samples in an array, and the samplers that read them.
template <class Traits, class T> class Subject {
public:
    Subject(std::string const& name, bool scan, int tiles, int count)
        : m_low(Traits::kBranch == 2 ? 0 : -2), m_size(tiles * Traits::kSamples),
          m_positions(makePositions(scan, m_low, m_size, count)),
          m_volume(buildVolume<Traits, T>(
              kVoxelSize, Traits::kMaxDepth,
              [this](float3 const& low, float3 const& high, int) {
                  float const first = (static_cast<float>(m_low) + 0.5F) * kVoxelSize,
                              last = (static_cast<float>(m_low + m_size) - 0.5F) * kVoxelSize;
                  return low.x < last && low.y < last && low.z < last && high.x > first &&
                         high.y > first && high.z > first;
              },
              creasedFunction<T>)),
          m_halo("", &m_volume.channel->defaultValue(), 0, false, true, 0, Traits::kMaxDepth),
          m_dense(denseCopy(m_volume, m_low, m_size)) {
        m_halo.update(*m_volume.topology);
        computeHalo<Traits, T, 0, 0, 1, 0>(*m_volume.channel, *m_volume.container, m_halo, 0,
                                           Traits::kMaxDepth);
        m_out.assign(4 * kFloats * (static_cast<std::size_t>(count) + kBetween), 0);
        m_halos = std::make_unique<LinearSampler<Traits, T>>(*m_volume.container,
                                                             *m_volume.topology, m_halo);
        m_direct = std::make_unique<LinearSampler<Traits, T>>(
            *m_volume.container, *m_volume.topology, *m_volume.channel);
        VoxelTopology<Traits> const middles(m_volume.container, 0);
        m_ring = std::make_unique<LinearSampler<Traits, T>>(*m_volume.container, middles,
                                                            *m_volume.channel);

        add(name + "/dense", [this] {
            return sumOf(m_positions, [&](float3 const& p) { return m_dense.linear(p); });
        });
        addSampler(name + "/halo", *m_halos);
        add(name + "/halo_block", [this] { return block(*m_halos); });
        addSampler(name + "/channel", *m_direct);
        addSampler(name + "/ring", *m_ring);
        add(name + "/channel_block", [this] { return block(*m_direct); });
        add(name + "/ring_block", [this] { return block(*m_ring); });
        if constexpr (std::same_as<T, float>) {
            add(name + "_gradient/dense", [this] {
                return sumOf(m_positions, [&](float3 const& p) {
                    float3 g;
                    float const v = m_dense.linear(p, &g);
                    return v + g.x + g.y + g.z;
                });
            });
        }
        std::string const gradient = name + "_gradient";
        add(gradient + "/halo", [this] {
            return sumOf(m_positions, [&](float3 const& p) {
                Both both;
                both.value = m_halos->sampleGradient(p, Traits::kMaxDepth, kWorld, both.gradient);
                return both;
            });
        });
        add(gradient + "/halo_block", [this] { return gradientBlock(); });
#ifdef ZEL_WITH_OPENVDB
        m_openvdb = std::make_unique<OpenVdbBaseline<T>>(m_dense);
        auto const& [x, y, z] = m_positions;
        add(name + "/openvdb", [this, &x, &y, &z] { return m_openvdb->linear(x, y, z); });
        if constexpr (std::same_as<T, float>)
            add(gradient + "/openvdb",
                [this, &x, &y, &z] { return m_openvdb->linearWithGradients(x, y, z); });
#endif
    }
    Subject(Subject const&) = delete;

    std::vector<Reader> const& readers() const {
        return m_readers;
    }
    int count() const {
        return m_positions.count();
    }

    /// Whether all methods agree approximately.
    bool agree() {
        for (int i = 0; i < count(); i += 101) {
            T const a = m_halos->sample(m_positions[i], Traits::kMaxDepth, kWorld);
            T const b = m_dense.linear(m_positions[i]);
            auto const first = [](T const& v) { return *reinterpret_cast<float const*>(&v); };
            if (std::abs(first(a) - first(b)) > 1e-3F * (1 + std::abs(first(b)))) return false;
        }
        return true;
    }

private:
    static constexpr std::size_t kFloats = LinearSampler<Traits, T>::kFloats, kBetween = 272;
    struct Both {
        T value;
        GradientOf<T> gradient;
    };

    void add(std::string const& name, std::function<double()> run) {
        m_readers.push_back({name, std::move(run)});
    }
    void addSampler(std::string const& name, LinearSampler<Traits, T>& sampler) {
        add(name, [this, &sampler] {
            return sumOf(m_positions, [&](float3 const& p) {
                return sampler.sample(p, Traits::kMaxDepth, kWorld);
            });
        });
    }
    /// Arrays for results, from the first-th on. They do not begin a power of 2 apart, where they
    /// would share one set of the cache.
    template <std::size_t Count> std::array<float*, Count> out(std::size_t first) {
        std::size_t const apart = static_cast<std::size_t>(count()) + kBetween;
        std::array<float*, Count> arrays;
        for (std::size_t i = 0; i < Count; ++i) arrays[i] = m_out.data() + (first + i) * apart;
        return arrays;
    }
    double block(LinearSampler<Traits, T>& sampler) {
        auto const& [x, y, z] = m_positions;
        auto const values = out<kFloats>(0);
        sampler.sampleBatch(x.data(), y.data(), z.data(), count(), Traits::kMaxDepth, kWorld,
                            values);
        return static_cast<double>(*values[0]);
    }
    double gradientBlock() {
        auto const& [x, y, z] = m_positions;
        auto const values = out<kFloats>(0);
        m_halos->sampleGradientBatch(x.data(), y.data(), z.data(), count(), Traits::kMaxDepth,
                                     kWorld, values, out<3 * kFloats>(kFloats));
        return static_cast<double>(*values[0]);
    }

    int m_low, m_size;
    Positions m_positions;
    Volume<Traits, T> m_volume;
    HaloChannel<Traits, T> m_halo;
    DenseVolume<T> m_dense;
    std::unique_ptr<LinearSampler<Traits, T>> m_halos, m_direct, m_ring;
#ifdef ZEL_WITH_OPENVDB
    std::unique_ptr<OpenVdbBaseline<T>> m_openvdb;
#endif
    std::vector<float> m_out;
    std::vector<Reader> m_readers;
};

void registerReader(Reader const& reader, int count) {
    auto const run = [&reader, count](benchmark::State& state) {
        for (auto _ : state) {
            benchmark::DoNotOptimize(reader.run());
            benchmark::ClobberMemory();
        }
        countItems(state, count);
    };
    benchmark::RegisterBenchmark(reader.name.c_str(), run)->Unit(benchmark::kMillisecond);
}

void printTable(RatioReporter const& report, std::vector<std::string> const& names) {
    std::printf("\nread                                    median     least  of dense  of value"
                "   (ns a position, one thread)\n");
    for (std::string const& name : names) {
        RatioReporter::Times const own = report[name];
        double const dense = report[name.substr(0, name.rfind('/')) + "/dense"].median;
        std::printf("%-36s", name.c_str());
        printCell(own.median, 10, 2);
        printCell(own.least, 10, 2);
        printCell(ratio(own.median, dense), 10, 2);
        std::string value = name;
        if (auto const at = value.find("_gradient"); at != std::string::npos)
            printCell(ratio(own.median, report[value.erase(at, 9)].median), 10, 2);
        std::printf("\n");
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 9, "0.02")) return EXIT_FAILURE;
#ifndef ZEL_WITH_OPENVDB
    std::printf("OpenVDB was not found when this was built: no comparison with it\n");
#endif

    constexpr int kScan = 1 << 17, kRandom = 1 << 20;
    Subject<BinaryTraits, float> scan2("scan/2-tree/float", true, 32, kScan);
    Subject<BinaryTraits, float3> scanVectors("scan/2-tree/float3", true, 32, kScan);
    Subject<QuinaryTraits, float> scan5("scan/5-tree/float", true, 26, kScan);
    Subject<QuinaryTraits, float3> scanVectors5("scan/5-tree/float3", true, 26, kScan);
    Subject<BinaryTraits, float> random2("random/2-tree/float", false, 88, kRandom);
    Subject<BinaryTraits, float3> randomVectors("random/2-tree/float3", false, 60, kRandom);
    Subject<QuinaryTraits, float> random5("random/5-tree/float", false, 70, kRandom);

    std::vector<std::string> names;
    bool agree = true;
    auto const enter = [&](auto& subject) {
        agree = agree && subject.agree();
        for (Reader const& reader : subject.readers()) {
            registerReader(reader, subject.count());
            names.push_back(reader.name);
        }
    };
    enter(scan2);
    enter(scanVectors);
    enter(scan5);
    enter(scanVectors5);
    enter(random2);
    enter(randomVectors);
    enter(random5);
    if (!agree) {
        std::fprintf(stderr, "the sampler and the dense array differ\n");
        return EXIT_FAILURE;
    }
    std::sort(names.begin(), names.end());
    return runBenchmarks([&](RatioReporter const& report) { printTable(report, names); });
}
