// Measures every noise function against a textbook implementation of four-dimensional simplex
// noise, over the same million points in the same run, in ns a sample. `/0` are points scattered
// over the lattice, `/1` points along a line. The functions for blocks run with every instruction
// set of the machine, in blocks of 128 points. Nodes run point by point, in a batch on one thread
// with every instruction set, and in a batch on all threads with the best instruction set.

#include "zel/zel.h"
#include "zel_platform/orvane_math_support/noise.h"
#include "zel_platform/orvane_math_support/noise_block.h"
#include "zel_platform/quern_core/simd_target.h"

#include <benchmark/benchmark.h>
#include <tbb/global_control.h>
#include <tbb/info.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace {

using namespace Orvane::Math;

/// Textbook simplex noise (S. Gustavson, "Simplex noise demystified", 2005): a permutation of 256
/// entries, 32 gradients at the midpoints of the edges of a hypercube, ranks by comparison, one
/// branch a vertex.
class TextbookNoise {
public:
    explicit TextbookNoise(unsigned seed) {
        std::iota(perm_.begin(), perm_.begin() + 256, std::uint8_t{0});
        std::shuffle(perm_.begin(), perm_.begin() + 256, std::mt19937(seed));
        std::copy(perm_.begin(), perm_.begin() + 256, perm_.begin() + 256);
        std::size_t n = 0;
        for (std::size_t zero = 0; zero < 4; ++zero)
            for (int signs = 0; signs < 8; ++signs, ++n)
                for (std::size_t c = 0, bit = 0; c < 4; ++c)
                    grad_[n][c] = c == zero ? 0.0f : (signs >> bit++ & 1) != 0 ? -1.0f : 1.0f;
    }

    float operator()(float x, float y, float z, float w) const {
        constexpr float skew = 0.309016994f, unskew = 0.138196601f;
        float const s = (x + y + z + w) * skew;
        int const i = fastFloor(x + s), j = fastFloor(y + s), k = fastFloor(z + s),
                  l = fastFloor(w + s);
        float const t = static_cast<float>(i + j + k + l) * unskew;
        float const x0 = x - (static_cast<float>(i) - t), y0 = y - (static_cast<float>(j) - t),
                    z0 = z - (static_cast<float>(k) - t), w0 = w - (static_cast<float>(l) - t);
        int rx = 0, ry = 0, rz = 0, rw = 0;
        (x0 > y0 ? rx : ry)++;
        (x0 > z0 ? rx : rz)++;
        (x0 > w0 ? rx : rw)++;
        (y0 > z0 ? ry : rz)++;
        (y0 > w0 ? ry : rw)++;
        (z0 > w0 ? rz : rw)++;
        float sum = 0;
        for (int vertex = 0; vertex < 5; ++vertex) {
            int const a = rx >= 4 - vertex, b = ry >= 4 - vertex, c = rz >= 4 - vertex,
                      d = rw >= 4 - vertex;
            float const g = static_cast<float>(vertex) * unskew;
            sum += corner(x0 - static_cast<float>(a) + g, y0 - static_cast<float>(b) + g,
                          z0 - static_cast<float>(c) + g, w0 - static_cast<float>(d) + g, i + a,
                          j + b, k + c, l + d);
        }
        return 27 * sum;
    }

private:
    static int fastFloor(float v) {
        int const i = static_cast<int>(v);
        return v < static_cast<float>(i) ? i - 1 : i;
    }
    float corner(float x, float y, float z, float w, int i, int j, int k, int l) const {
        float t = 0.6f - x * x - y * y - z * z - w * w;
        if (t < 0) return 0;
        auto const at = [&](int c, std::size_t rest) {
            return static_cast<std::size_t>(perm_[static_cast<std::size_t>(c & 255) + rest]);
        };
        auto const& g = grad_[at(i, at(j, at(k, at(l, 0)))) & 31];
        t *= t;
        return t * t * (g[0] * x + g[1] * y + g[2] * z + g[3] * w);
    }

    std::array<std::uint8_t, 512> perm_;
    std::array<std::array<float, 4>, 32> grad_;
};

std::vector<float4> const& points(bool line) {
    auto const make = [](bool onLine) {
        std::mt19937 random(20240);
        std::uniform_real_distribution<float> u(-100, 100);
        std::vector<float4> p(1 << 20);
        for (std::size_t i = 0; i < p.size(); ++i) {
            float const s = static_cast<float>(i) * 0.001f;
            p[i] = onLine ? float4{s, 0.3f * s, 0.2f * s - 5, 1.5f}
                          : float4{u(random), u(random), u(random), u(random)};
        }
        return p;
    };
    static std::vector<float4> const scattered = make(false), straight = make(true);
    return line ? straight : scattered;
}

void countSamples(benchmark::State& state, std::size_t samples) {
    state.counters["sample"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * static_cast<double>(samples),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

template <class Noise> void run(benchmark::State& state, Noise const& noise) {
    auto const& p = points(state.range(0) != 0);
    for (auto _ : state)
        for (float4 const& point : p) benchmark::DoNotOptimize(noise(point));
    countSamples(state, p.size());
}

/// The points, with an array for each coordinate.
template <class Real> struct Coordinates { std::vector<Real> x, y, z, w; };
template <class Real> Coordinates<Real> const& coordinates(bool line) {
    auto const make = [](bool onLine) {
        Coordinates<Real> c;
        for (float4 const& p : points(onLine)) {
            c.x.push_back(static_cast<Real>(p.x));
            c.y.push_back(static_cast<Real>(p.y));
            c.z.push_back(static_cast<Real>(p.z));
            c.w.push_back(static_cast<Real>(p.w));
        }
        return c;
    };
    static Coordinates<Real> const scattered = make(false), straight = make(true);
    return line ? straight : scattered;
}

/// Registers a benchmark of a function for blocks with each instruction set. `noise` receives
/// pointers to the coordinates of a block, and twelve arrays for results.
template <class Real, class Noise> void addBlock(std::string const& name, Noise const& noise) {
    constexpr int kBlock = 128;
    for (auto const& target : Quern::simdTargets())
        benchmark::RegisterBenchmark((name + "/" + target.name).c_str(),
                                     [target, noise](benchmark::State& state) {
                                         Quern::useSimdTarget(target);
                                         auto const& c = coordinates<Real>(state.range(0) != 0);
                                         std::array<std::array<Real, kBlock>, 15> out;
                                         for (auto _ : state)
                                             for (std::size_t i = 0; i < c.x.size(); i += kBlock) {
                                                 noise(&c.x[i], &c.y[i], &c.z[i], &c.w[i], kBlock,
                                                       out);
                                                 benchmark::DoNotOptimize(out);
                                             }
                                         countSamples(state, c.x.size());
                                         Quern::useSimdTarget(Quern::simdTargets().front());
                                     })
            ->Arg(0)
            ->Arg(1);
}

double4 wide(float4 const& p) {
    return {static_cast<double>(p.x), static_cast<double>(p.y), static_cast<double>(p.z),
            static_cast<double>(p.w)};
}

void textbookSimplex(benchmark::State& state) {
    TextbookNoise const noise(7);
    run(state, [&](float4 const& p) { return noise(p.x, p.y, p.z, p.w); });
}
void simplexFloat(benchmark::State& state) {
    run(state, [](float4 const& p) { return simplex_noise(p, 7); });
}
void simplexDouble(benchmark::State& state) {
    run(state, [](float4 const& p) { return simplex_noise(wide(p), 7); });
}
void simplexFloatDerivative(benchmark::State& state) {
    run(state, [](float4 const& p) {
        float4 derivative;
        return simplex_noise(p, 7, derivative) + derivative.x;
    });
}
void simplexDoubleDerivative(benchmark::State& state) {
    run(state, [](float4 const& p) {
        double4 derivative;
        return simplex_noise(wide(p), 7, derivative) + derivative.x;
    });
}
void curlNoise(benchmark::State& state) {
    run(state, [](float4 const& p) { return curl_noise({p.x, p.y, p.z}, p.w, 7); });
}
void smoothCurlNoise(benchmark::State& state) {
    run(state, [](float4 const& p) { return smooth_curl_noise({p.x, p.y, p.z}, p.w, 7); });
}
void smoothCurlNoiseTable(benchmark::State& state) {
    std::array<float, 16> table;
    create_curl_noise_time_table(1.5f, table.data());
    run(state, [&](float4 const& p) {
        return smooth_curl_noise({p.x, p.y, p.z}, table.data(), 7);
    });
}
void curlNoiseDerivative(benchmark::State& state) {
    run(state, [](float4 const& p) {
        float3x3 jacobian;
        float3 t;
        return curl_noise_derivative({p.x, p.y, p.z}, p.w, 7, jacobian, t).x + jacobian[2][1] + t.x;
    });
}
void createTimeTable(benchmark::State& state) {
    run(state, [](float4 const& p) {
        std::array<float, 16> table;
        create_curl_noise_time_table(p.w, table.data());
        return table;
    });
}

zel::ScalarPtr constantTime() {
    return Quern::makePtr<zel::ScalarFieldConstant>(1.5f);
}

/// Registers benchmarks of a node with a constant time: called point by point through its
/// interface, and in a batch on one thread with each instruction set.
template <class Node, class... Args> void addNode(std::string const& name, Args const&... args) {
    auto const node = Quern::makePtr<Node>(args...);
    benchmark::RegisterBenchmark(
        (name + "/point").c_str(),
        [node](benchmark::State& state) {
            node->preSampleField();
            run(state, [&](float4 const& p) { return node->eval({p.x, p.y, p.z}, 0); });
            node->postSampleField();
        })
        ->Arg(0)
        ->Arg(1);
    auto const addBatch = [&](std::string const& form, Quern::SimdTarget const& target,
                              int threads) {
        auto const batch = [node, target, threads](benchmark::State& state) {
            tbb::global_control const control(tbb::global_control::max_allowed_parallelism,
                                              static_cast<std::size_t>(threads));
            Quern::Array<float3> positions;
            for (float4 const& p : points(state.range(0) != 0))
                positions.push_back({p.x, p.y, p.z});
            Quern::useSimdTarget(target);
            for (auto _ : state) benchmark::DoNotOptimize(node->eval(positions)->data());
            Quern::useSimdTarget(Quern::simdTargets().front());
            countSamples(state, static_cast<std::size_t>(positions.size()));
        };
        benchmark::RegisterBenchmark((name + form).c_str(), batch)->UseRealTime()->Arg(0)->Arg(1);
    };
    for (auto const& target : Quern::simdTargets())
        addBatch(std::string("/batch ") + target.name, target, 1);
    addBatch("/batch all threads", Quern::simdTargets().front(), tbb::info::default_concurrency());
}

void addNodes() {
    addNode<zel::ScalarFieldSimplexNoise>("simplexNode", constantTime(), 7);
    addNode<zel::ScalarFieldFractalNoise>("fractalNodeFiveOctaves", 1.0f, 5.0f, 1.0f, 0.5f, 0.5f,
                                          constantTime(), 1.5f, 7);
    addNode<zel::VectorFieldCurlNoise>("curlNode", constantTime(), false, 7);
    addNode<zel::VectorFieldCurlNoise>("smoothCurlNode", constantTime(), true, 7);
    addNode<zel::VectorFieldFractalTurbulence>("turbulenceNodeFiveOctaves", 1.0f, 5.0f, 1.0f, 0.5f,
                                               0.5f, constantTime(), 1.5f, true, 7);
}

BENCHMARK(textbookSimplex)->Arg(0)->Arg(1);
BENCHMARK(simplexFloat)->Arg(0)->Arg(1);
BENCHMARK(simplexDouble)->Arg(0)->Arg(1);
BENCHMARK(simplexFloatDerivative)->Arg(0)->Arg(1);
BENCHMARK(simplexDoubleDerivative)->Arg(0)->Arg(1);
BENCHMARK(curlNoise)->Arg(0)->Arg(1);
BENCHMARK(smoothCurlNoise)->Arg(0)->Arg(1);
BENCHMARK(smoothCurlNoiseTable)->Arg(0)->Arg(1);
BENCHMARK(curlNoiseDerivative)->Arg(0)->Arg(1);
BENCHMARK(createTimeTable)->Arg(0);

void addBlocks() {
    auto const value = [](auto x, auto y, auto z, auto w, int n, auto& out) {
        simplex_noise_block(x, y, z, w, n, 7, out[0].data());
    };
    auto const derivative = [](auto x, auto y, auto z, auto w, int n, auto& out) {
        simplex_noise_block(x, y, z, w, n, 7, out[0].data(), out[1].data(), out[2].data(),
                            out[3].data(), out[4].data());
    };
    addBlock<float>("simplexFloatBlock", value);
    addBlock<double>("simplexDoubleBlock", value);
    addBlock<float>("simplexFloatDerivativeBlock", derivative);
    addBlock<double>("simplexDoubleDerivativeBlock", derivative);
    addBlock<float>("curlNoiseBlock", [](auto x, auto y, auto z, auto t, int n, auto& out) {
        curl_noise_block(x, y, z, t, n, 7, out[0].data(), out[1].data(), out[2].data());
    });
    addBlock<float>("smoothCurlNoiseBlock", [](auto x, auto y, auto z, auto t, int n, auto& out) {
        smooth_curl_noise_block(x, y, z, t, n, 7, out[0].data(), out[1].data(), out[2].data());
    });
    addBlock<float>("smoothCurlNoiseBlockAtOneTime",
                    [](auto x, auto y, auto z, auto, int n, auto& out) {
                        static constexpr auto times = [] {
                            std::array<float, 128> all{};
                            all.fill(1.5f);
                            return all;
                        }();
                        smooth_curl_noise_block(x, y, z, times.data(), n, 7, out[0].data(),
                                                out[1].data(), out[2].data());
                    });
    addBlock<float>("curlNoiseDerivativeBlock",
                    [](auto x, auto y, auto z, auto t, int n, auto& out) {
                        float *jacobian[9], *along[3];
                        for (std::size_t k = 0; k < 9; ++k) jacobian[k] = out[3 + k].data();
                        for (std::size_t k = 0; k < 3; ++k) along[k] = out[12 + k].data();
                        curl_noise_derivative_block(x, y, z, t, n, 7, out[0].data(), out[1].data(),
                                                    out[2].data(), jacobian, along);
                    });
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    addNodes();
    addBlocks();
    benchmark::RunSpecifiedBenchmarks();
}
