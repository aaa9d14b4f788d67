// A vector field by line integral convolution (B. Cabral and L. Leedom, 1993): white noise is
// averaged along the stream line through each sample. The hue is the direction of the flow.

#include <cmath>
#include <cstdint>

#include "gallery/gallery.h"
#include "gallery/palette.h"
#include "gallery/plot.h"
#include "scenes.h"

namespace examples {

namespace {

constexpr int kWidth = 800;
constexpr int kHeight = 450;
constexpr int kFine = 2;    // samples for each pixel along an axis
constexpr int kSteps = 26;  // of one sample, either way
constexpr View kView{0, 0, 5.4F};

/// White noise: an even random value from 0 to 1 for each cell.
float cellNoise(int x, int y) {
    auto h =
        static_cast<std::uint32_t>(x) * 0x9E3779B1U ^ static_cast<std::uint32_t>(y) * 0x85EBCA77U;
    h = (h ^ h >> 15) * 0x2C1B3C6DU;
    h = (h ^ h >> 12) * 0x297A2D39U;
    return static_cast<float>((h ^ h >> 15) >> 8) * 0x1p-24F;
}

/// The noise at a position of the picture, with cells of one pixel, linear between their centres.
float noiseAt(float3 const& p) {
    float const scale = static_cast<float>(kWidth) / kView.width;
    float const x = p.x * scale;
    float const y = p.y * scale;
    float const fx = std::floor(x);
    float const fy = std::floor(y);
    int const i = static_cast<int>(fx);
    int const j = static_cast<int>(fy);
    float const low = std::lerp(cellNoise(i, j), cellNoise(i + 1, j), x - fx);
    float const high = std::lerp(cellNoise(i, j + 1), cellNoise(i + 1, j + 1), x - fx);
    return std::lerp(low, high, y - fy);
}

/// The weighted mean of the noise along the stream line through each position.
std::vector<float> streaks(Meter& meter, VectorPtr const& flow,
                           Quern::Array<float3> const& positions) {
    auto const direction = make<zel::VectorFieldUnitVector>(flow);
    std::vector<float> sum(static_cast<std::size_t>(positions.size()));
    auto const gather = [&](Quern::Array<float3> const& at, float weight) {
        for (long long i = 0; i < at.size(); ++i)
            sum[static_cast<std::size_t>(i)] += weight * noiseAt(at[i]);
    };
    float total = 1;
    gather(positions, 1);
    float const step = kView.width / (kWidth * kFine);
    for (float const sign : {1.0F, -1.0F}) {
        Quern::Array<float3> line = positions;
        for (int i = 1; i <= kSteps; ++i) {
            auto const directions = meter.values(*direction, line);
            for (long long k = 0; k < line.size(); ++k) line[k] += (*directions)[k] * (sign * step);
            float const weight =
                0.5F + 0.5F * std::cos(3.1415927F * static_cast<float>(i) / kSteps);
            gather(line, weight);
            total += weight;
        }
    }
    for (float& value : sum) value /= total;
    return sum;
}

}  // namespace

Image drawDirection(Meter& meter) {
    VectorPtr const flow = vortexStreet();
    Image fine(kWidth * kFine, kHeight * kFine);
    auto const positions = pixelPositions(kView, fine.width(), fine.height());
    std::vector<float> const noise = streaks(meter, flow, positions);
    auto const velocities = meter.values(*flow, positions);
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            long long const i = static_cast<long long>(y) * fine.width() + x;
            float3 const v = (*velocities)[i];
            float const speed = 1 - std::exp(-1.8F * std::hypot(v.x, v.y));
            float const streak = (noise[static_cast<std::size_t>(i)] - 0.5F) * 2.6F;
            float const lightness = std::clamp(0.35F + 0.38F * speed + 0.5F * streak, 0.08F, 0.98F);
            fine.at(x, y) = fromHue(lightness, 0.05F + 0.1F * speed, std::atan2(v.y, v.x) + 4.2F);
        }
    return fine.reduced(kFine);
}

}  // namespace examples
