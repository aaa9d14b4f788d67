#include "gallery/flow.h"

#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

namespace {

constexpr int kFine = 2;  // samples for each pixel along an axis

/// White noise: a uniform random value from 0 to 1 for each cell.
float cellNoise(int x, int y) {
    auto h =
        static_cast<std::uint32_t>(x) * 0x9E3779B1U ^ static_cast<std::uint32_t>(y) * 0x85EBCA77U;
    h = (h ^ h >> 15) * 0x2C1B3C6DU;
    h = (h ^ h >> 12) * 0x297A2D39U;
    return static_cast<float>((h ^ h >> 15) >> 8) * 0x1p-24F;
}

/// The noise at a place, with cells of size 1, linear between their centres.
float noiseAt(float x, float y) {
    float const fx = std::floor(x);
    float const fy = std::floor(y);
    constexpr float kFar = 0x1p30F;
    if (!(std::fabs(fx) < kFar && std::fabs(fy) < kFar)) return 0.5F;
    int const i = static_cast<int>(fx);
    int const j = static_cast<int>(fy);
    float const low = std::lerp(cellNoise(i, j), cellNoise(i + 1, j), x - fx);
    float const high = std::lerp(cellNoise(i, j + 1), cellNoise(i + 1, j + 1), x - fx);
    return std::lerp(low, high, y - fy);
}

/// The weighted mean of the noise along the stream line through each position.
std::vector<float> streaks(Meter& meter, VectorPtr const& flow,
                           Quern::Array<float3> const& positions, float pixel, int steps) {
    auto const direction = make<zel::VectorFieldUnitVector>(flow);
    std::vector<float> sum(static_cast<std::size_t>(positions.size()));
    auto const gather = [&](Quern::Array<float3> const& at, float weight) {
        tbb::parallel_for(0LL, at.size(), [&](long long i) {
            sum[static_cast<std::size_t>(i)] += weight * noiseAt(at[i].x / pixel, at[i].y / pixel);
        });
    };
    float total = 1;
    gather(positions, 1);
    float const step = pixel / kFine;
    for (float const sign : {1.0F, -1.0F}) {
        Quern::Array<float3> line = positions;
        for (int i = 1; i <= steps; ++i) {
            auto const directions = meter.values(*direction, line);
            for (long long k = 0; k < line.size(); ++k) line[k] += (*directions)[k] * (sign * step);
            float const weight = 0.5F + 0.5F * std::cos(3.1415927F * static_cast<float>(i) /
                                                        static_cast<float>(steps));
            gather(line, weight);
            total += weight;
        }
    }
    for (float& value : sum) value /= total;
    return sum;
}

}  // namespace

Image plotFlow(Meter& meter, VectorPtr const& flow, View const& view, int width, int height,
               FlowStyle const& style) {
    VectorPtr const plane =
        make<zel::VectorFieldMultiply>(flow, make<zel::VectorFieldConstant>(float3{1, 1, 0}));
    Image fine(width * kFine, height * kFine);
    auto const positions = pixelPositions(view, fine.width(), fine.height());
    float const pixel = view.width / static_cast<float>(width);
    std::vector<float> const noise = streaks(meter, plane, positions, pixel, style.steps);
    auto const velocities = meter.values(*plane, positions);
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            long long const i = static_cast<long long>(y) * fine.width() + x;
            float3 const v = (*velocities)[i];
            float const speed = 1 - std::exp(-style.speedScale * std::hypot(v.x, v.y));
            float const streak =
                (noise[static_cast<std::size_t>(i)] - 0.5F) * 1.3F * style.contrast;
            float const lightness = std::clamp(0.35F + 0.38F * speed + streak, 0.08F, 0.98F);
            fine.at(x, y) = fromHue(lightness, 0.05F + 0.1F * speed, std::atan2(v.y, v.x) + 4.2F);
        }
    return fine.reduced(kFine);
}

}  // namespace examples
