// Measures the cubic sampler, with all interpolation types, in a volume that is filled throughout:
// along scan lines in half-voxel steps, and at random points. Compared with it are a tricubic
// Lagrange sampler, written by hand, of a dense array with the same samples; and, where OpenVDB is
// installed, its quadratic sampler with an accessor, which reads 27 samples instead of 64. Also
// measures a sample next to a coarser tile, blended or adaptive, against a sample away from it.

#include <benchmark/benchmark.h>

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
#include "zel/sampler/cubic/voxel_sampler_cubic.h"
#include "zel_platform/orvane_geometry_volume/tile_tree.h"

#ifdef ZEL_WITH_OPENVDB
#include "openvdb_baseline.h"
#endif

namespace {

using namespace ORV::TileTree3D;

template <class Traits, class T> using Sampler = VoxelSamplerCubic<Traits, T, float, float3, 0, 0>;

constexpr float kVoxelSize = 0.1F;
constexpr int kWorld = 2;

/// Positions in world units, with an array for each component.
struct Positions {
    std::vector<float> x, y, z;

    void add(float i, float j, float k) {
        x.push_back(i * kVoxelSize);
        y.push_back(j * kVoxelSize);
        z.push_back(k * kVoxelSize);
    }
    int count() const { return static_cast<int>(x.size()); }
    /// The sum of the first component of `read(position)` over all positions.
    template <class Read> double sum(Read const& read) const {
        float total = 0;
        for (std::size_t n = 0; n < x.size(); ++n) {
            auto const value = read(float3{x[n], y[n], z[n]});
            total += *reinterpret_cast<float const*>(&value);
        }
        return static_cast<double>(total);
    }
};

/// Positions within `size` voxels from `low` on, two voxels away from the sides: along lines, with
/// half a voxel between positions and between lines, or at random.
Positions makePositions(bool scan, int low, int size, int count) {
    Positions p;
    float const first = static_cast<float>(low) + 2.25F;
    int const steps = 2 * size - 10;
    std::mt19937 engine(3);
    std::uniform_real_distribution<float> inside(first, first + 0.5F * static_cast<float>(steps));
    for (int n = 0; n < count; ++n) {
        auto const at = [&](int step) {
            return scan ? first + 0.5F * static_cast<float>(step % steps) : inside(engine);
        };
        float const i = at(n), j = at(n / steps);
        p.add(i, j, at(n / steps / steps + steps / 2));
    }
    return p;
}

/// A method of reading samples at all positions; `baseline` names the method to compare it with.
struct Reader {
    std::string name, baseline;
    int count;
    std::function<double()> run;
};
using Readers = std::vector<Reader>;

/// A volume that is filled throughout.
template <class Traits, class T> class Filled {
public:
    Filled(std::string const& name, bool scan, int tiles, int count, Readers& readers)
        : m_low(Traits::kBranch == 2 ? 0 : -2), m_size(tiles * Traits::kSamples),
          m_positions(makePositions(scan, m_low, m_size, count)),
          m_volume(buildVolume<Traits, T>(
              kVoxelSize, Traits::kMaxDepth,
              [this](float3 const& low, float3 const& high, int) {
                  float const first = (static_cast<float>(m_low) - 3) * kVoxelSize,
                              last = (static_cast<float>(m_low + m_size) + 3) * kVoxelSize;
                  return low.x < last && low.y < last && low.z < last && high.x > first &&
                         high.y > first && high.z > first;
              },
              creasedFunction<T>)),
          m_dense(denseCopy(m_volume, m_low, m_size)) {
        std::string const dense = name + "/dense_lagrange";
        auto const add = [&](std::string const& reader, std::function<double()> run) {
            readers.push_back({name + "/" + reader, dense, count, std::move(run)});
        };
        add("dense_lagrange",
            [this] { return m_positions.sum([&](float3 const& p) { return m_dense.cubic(p); }); });
        for (unsigned type = 0; type < 4; ++type) {
            m_samplers[type] = std::make_unique<Sampler<Traits, T>>(
                *m_volume.container, *m_volume.topology, *m_volume.channel, type, true,
                kJumpTrilinear, nullptr, 0, 0);
            auto& sampler = *m_samplers[type];
            std::string const reader = "type_" + std::to_string(type);
            add(reader, [this, &sampler] {
                return m_positions.sum([&](float3 const& p) { return sampler.sample(p, kWorld); });
            });
            add(reader + "_block", [this, &sampler] { return block(sampler); });
            // Values with their gradients, against the values.
            auto const addGradient = [&](std::string const& form, std::function<double()> run) {
                readers.push_back({name + "/" + reader + "_gradient" + form,
                                   name + "/" + reader + form, count, std::move(run)});
            };
            addGradient("", [this, &sampler] {
                return m_positions.sum([&](float3 const& p) {
                    Both both;
                    both.value = sampler.sampleGradient(p, kWorld, both.gradient);
                    return both.sum();
                });
            });
            addGradient("_block", [this, &sampler] { return gradientBlock(sampler); });
        }
#ifdef ZEL_WITH_OPENVDB
        m_openvdb = std::make_unique<OpenVdbBaseline<T>>(m_dense);
        add("openvdb_quadratic",
            [this] { return m_openvdb->quadratic(m_positions.x, m_positions.y, m_positions.z); });
#endif
    }
    Filled(Filled const&) = delete;

    /// Whether the sampler and the array agree approximately.
    bool agree() const {
        double worst = 0;
        m_positions.sum([&](float3 const& p) {
            T const a = m_samplers[1]->sample(p, kWorld), b = m_dense.cubic(p);
            float const x = *reinterpret_cast<float const*>(&a),
                        y = *reinterpret_cast<float const*>(&b);
            worst = std::max(worst, std::abs(double{x} - y) / (1 + std::abs(double{y})));
            return 0.0F;
        });
        return worst < 0.05;  // the sampler is clamped
    }

private:
    static constexpr std::size_t kFloats = Sampler<Traits, T>::kComponents;
    struct Both {
        T value;
        GradientOf<T> gradient;

        float sum() const {
            float total = 0;
            for (float f : std::bit_cast<std::array<float, 4 * kFloats>>(*this)) total += f;
            return total;
        }
    };

    /// Arrays for results, from the first-th on. They do not begin a power of 2 apart, where they
    /// would share one set of the cache.
    template <std::size_t Count> std::array<float*, Count> out(std::size_t first) {
        constexpr std::size_t kBetween = 272;
        std::size_t const n = static_cast<std::size_t>(m_positions.count()) + kBetween;
        m_out.resize(4 * kFloats * n);
        std::array<float*, Count> arrays;
        for (std::size_t c = 0; c < Count; ++c) arrays[c] = m_out.data() + n * (first + c);
        return arrays;
    }
    double block(Sampler<Traits, T>& sampler) {
        auto const& [x, y, z] = m_positions;
        sampler.sampleBatch(x.data(), y.data(), z.data(), m_positions.count(), kWorld,
                            out<kFloats>(0));
        return m_out[0];
    }
    double gradientBlock(Sampler<Traits, T>& sampler) {
        auto const& [x, y, z] = m_positions;
        sampler.sampleGradientBatch(x.data(), y.data(), z.data(), m_positions.count(), kWorld,
                                    out<kFloats>(0), out<3 * kFloats>(kFloats));
        return m_out[0];
    }

    int m_low, m_size;
    Positions m_positions;
    Volume<Traits, T> m_volume;
    DenseVolume<T> m_dense;
    std::array<std::unique_ptr<Sampler<Traits, T>>, 4> m_samplers;
    std::vector<float> m_out;
#ifdef ZEL_WITH_OPENVDB
    std::unique_ptr<OpenVdbBaseline<T>> m_openvdb;
#endif
};

/// A volume that is fine for x below 0, and coarser by one depth above. The positions are lines
/// along y in half-voxel steps: away from the jump, and in the last fine voxel before it.
template <class Traits> class Jump {
public:
    Jump(std::string const& name, int count, Readers& readers)
        : m_volume(buildVolume<Traits, float>(
              kVoxelSize, Traits::kMaxDepth,
              [](float3 const& low, float3 const& high, int depth) {
                  constexpr float kReach = 40 * kVoxelSize;
                  for (int axis = 0; axis < 3; ++axis)
                      if (!(low[axis] < kReach && high[axis] > -kReach)) return false;
                  return depth < Traits::kMaxDepth || high.x < 0.4F;
              },
              creasedFunction<float>)) {
        auto const accessor = m_volume.container->tileAccessor();
        int last = 0;  // the first lattice point beyond the fine tiles
        while (accessor.tile(last, 0, 0, Traits::kMaxDepth).depth() == Traits::kMaxDepth) ++last;
        for (int n = 0; n < count; ++n) {
            float const y = -20.25F + 0.5F * static_cast<float>(n % 80),
                        z = -20.25F + 0.5F * static_cast<float>(n / 80 % 80);
            m_at[0].add(static_cast<float>(last) - 15.5F, y, z);
            m_at[1].add(static_cast<float>(last) - 0.5F, y, z);
        }
        auto const add = [&](char const* reader, int place, int jumpHandling, int type) {
            auto const sampler = std::make_shared<Sampler<Traits, float>>(
                *m_volume.container, *m_volume.topology, *m_volume.channel, type, true,
                jumpHandling, nullptr, 0, 0);
            readers.push_back({name + reader, name + "/uniform", count, [this, sampler, place] {
                                   return m_at[place].sum(
                                       [&](float3 const& p) { return sampler->sample(p, kWorld); });
                               }});
        };
        add("/uniform", 0, kJumpTrilinear, kCubicC0);
        add("/uniform_adaptive", 0, kJumpAdaptive, kCubicC0);
        add("/jump_blend", 1, kJumpTrilinear, kCubicC0);
        add("/jump_adaptive", 1, kJumpAdaptive, kCubicC0);
    }
    Jump(Jump const&) = delete;

private:
    Volume<Traits, float> m_volume;
    Positions m_at[2];
};

void printTable(RatioReporter const& report, Readers const& readers) {
    std::printf(
        "\nread                                    median     least   ratio"
        "   (ns a position, one thread; to the dense array, to values alone, or to uniform)\n");
    for (Reader const& reader : readers) {
        RatioReporter::Times const own = report[reader.name];
        std::printf("%-36s", reader.name.c_str());
        printCell(own.median, 10, 2);
        printCell(own.least, 10, 2);
        printCell(ratio(own.least, report[reader.baseline].least), 10, 2);
        std::printf("\n");
    }
#ifndef ZEL_WITH_OPENVDB
    std::printf("OpenVDB was not found when this was built: no comparison with it\n");
#endif
}

}  // namespace

int main(int argc, char** argv) {
    if (!startBenchmarks(argc, argv, 9, "0.02")) return EXIT_FAILURE;

    constexpr int kScan = 1 << 16, kRandom = 1 << 18;
    Readers readers;
    Filled<BinaryTraits, float> const scan2("scan/2-tree/float", true, 32, kScan, readers);
    Filled<QuinaryTraits, float> const scan5("scan/5-tree/float", true, 26, kScan, readers);
    Filled<BinaryTraits, float3> const vectors2("scan/2-tree/float3", true, 32, kScan, readers);
    Filled<QuinaryTraits, float3> const vectors5("scan/5-tree/float3", true, 26, kScan, readers);
    Filled<BinaryTraits, float> const random2("random/2-tree/float", false, 64, kRandom, readers);
    Filled<QuinaryTraits, float> const random5("random/5-tree/float", false, 52, kRandom, readers);
    Jump<BinaryTraits> const jump2("jump/2-tree", 6400, readers);
    Jump<QuinaryTraits> const jump5("jump/5-tree", 6400, readers);
    if (!scan2.agree() || !scan5.agree() || !vectors2.agree() || !vectors5.agree() ||
        !random2.agree() || !random5.agree()) {
        std::fprintf(stderr, "the sampler and the dense array differ\n");
        return EXIT_FAILURE;
    }
    for (Reader const& reader : readers)
        benchmark::RegisterBenchmark(reader.name.c_str(), [&reader](benchmark::State& state) {
            for (auto _ : state) {
                benchmark::DoNotOptimize(reader.run());
                benchmark::ClobberMemory();
            }
            countItems(state, reader.count);
        })->Unit(benchmark::kMillisecond);
    return runBenchmarks([&](RatioReporter const& report) { printTable(report, readers); });
}
