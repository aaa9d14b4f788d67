#include "drawing/plot.h"

#include <algorithm>
#include <cmath>

#include "drawing/lines.h"

namespace drawing {

namespace {

using zel::float3;

/// Blends iso-lines over `color` at a sample, by the field's value there and its change from sample
/// to sample.
Color withLines(Color color, float value, float slope, PlotStyle const& style) {
    static Color const ink = fromHex(0x1A1A1A);
    if (!(slope > 0)) return color;  // a plateau, even one at the value of a line
    if (style.spacing > 0) {
        float const steps = value / style.spacing;
        float const distance = std::fabs(steps - std::round(steps)) * style.spacing / slope;
        // Lines that are too close to be distinguished fade out.
        float const room = style.spacing / slope / (style.lineWidth * kSamples);
        float const strength = 0.34F * std::clamp((room - 2) / 3, 0.0F, 1.0F);
        color = mix(color, ink, strength * coverage(distance, style.lineWidth * kSamples));
    }
    if (style.zeroWidth > 0)
        color = mix(color, ink, coverage(std::fabs(value) / slope, style.zeroWidth * kSamples));
    return color;
}

/// The light on a surface by its slopes to the right and upwards; 1 for a flat surface.
float daylight(float slopeX, float slopeY) {
    constexpr float3 kSun{-0.5F, 0.5F, 0.70710678F};
    float const facing = kSun.z - kSun.x * slopeX - kSun.y * slopeY;
    float const lambert = facing / std::sqrt(1 + slopeX * slopeX + slopeY * slopeY) / kSun.z;
    constexpr float kSky = 0.25F;
    return kSky + (1 - kSky) * std::max(lambert, 0.0F);
}

}  // namespace

Quern::Array<zel::float3> pixelPositions(View const& view, int width, int height) {
    return pixelPositions(view, width, height, 0, height);
}

Quern::Array<zel::float3> pixelPositions(View const& view, int width, int height, int first,
                                         int rows) {
    float const step = view.width / static_cast<float>(width);
    float const left = view.x - view.width / 2;
    float const top = view.y + step * static_cast<float>(height) / 2;
    Quern::Array<zel::float3> positions;
    positions.reserve(static_cast<long long>(width) * rows);
    for (int row = first; row < first + rows; ++row)
        for (int column = 0; column < width; ++column)
            positions.push_back({left + (static_cast<float>(column) + 0.5F) * step,
                                 top - (static_cast<float>(row) + 0.5F) * step, 0});
    return positions;
}

Image plot(Meter& meter, zel::ScalarField const& field, View const& view, int width, int height,
           PlotStyle const& style, Progress const& progress) {
    int const fineWidth = width * kSamples;
    int const fineHeight = height * kSamples;
    float const step = view.width / static_cast<float>(fineWidth);
    return inBands(width, height, progress, [&](int top, int rows) {
        // The slope of a row needs its neighbours, or, at the edge of the image, the row inside.
        int const begin = top * kSamples;
        int const end = begin + rows * kSamples;
        int const first = std::max(begin - 1, 0);
        int const last = std::min(end, fineHeight - 1);
        auto const positions = pixelPositions(view, fineWidth, fineHeight, first, last - first + 1);
        auto const values = meter.values(field, positions);
        auto const number = [&](int x, int y) {
            return static_cast<long long>(y - first) * fineWidth + x;
        };
        auto const at = [&](int x, int y) { return (*values)[number(x, y)]; };
        Image fine(fineWidth, end - begin);
        for (int y = begin; y < end; ++y)
            for (int x = 0; x < fineWidth; ++x) {
                float const value = at(x, y);
                // The slope on the screen, from the neighbour that is nearer in value, so that a
                // jump beside the sample has no effect.
                auto const change = [&](float before, float after) {
                    return std::min(std::fabs(value - before), std::fabs(after - value));
                };
                int const lastX = fineWidth - 1;
                int const lastY = fineHeight - 1;
                float const dx =
                    change(at(x > 0 ? x - 1 : 1, y), at(x < lastX ? x + 1 : lastX - 1, y));
                float const dy =
                    change(at(x, y > 0 ? y - 1 : 1), at(x, y < lastY ? y + 1 : lastY - 1));
                Color color =
                    withLines(twoSided(value, style.scale), value, std::hypot(dx, dy), style);
                if (style.axes) {
                    float3 const& p = positions[number(x, y)];
                    float const distance = std::min(std::fabs(p.x), std::fabs(p.y)) / step;
                    color = mix(color, {1, 1, 1}, 0.45F * coverage(distance, kSamples));
                }
                fine.at(x, y - begin) = color;
            }
        return fine.reduced(kSamples);
    });
}

Image plotRamp(Meter& meter, zel::ScalarField const& field, View const& view, int width, int height,
               RampStyle const& style) {
    Image fine(width * kSamples, height * kSamples);
    auto const values = meter.values(field, pixelPositions(view, fine.width(), fine.height()));
    auto const at = [&](int x, int y) {
        return (*values)[static_cast<long long>(y) * fine.width() + x];
    };
    float const step = view.width / static_cast<float>(fine.width());
    auto const slope = [&](float low, float high, int distance) {
        return style.relief * (high - low) / (step * static_cast<float>(distance));
    };
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            Color const color = style.ramp((at(x, y) - style.low) / (style.high - style.low));
            float light = 1;
            if (style.relief > 0) {
                int const left = std::max(x - 1, 0);
                int const right = std::min(x + 1, fine.width() - 1);
                int const above = std::max(y - 1, 0);
                int const below = std::min(y + 1, fine.height() - 1);
                light = daylight(slope(at(left, y), at(right, y), right - left),
                                 slope(at(x, below), at(x, above), below - above));
            }
            fine.at(x, y) = color * light;
        }
    return fine.reduced(kSamples);
}

Image plotGradient(Meter& meter, zel::ScalarField const& field, View const& view, int width,
                   int height, float steepness) {
    Image fine(width * kSamples, height * kSamples);
    auto const gradients =
        meter.gradients(field, pixelPositions(view, fine.width(), fine.height()));
    for (int y = 0; y < fine.height(); ++y)
        for (int x = 0; x < fine.width(); ++x) {
            float3 const g = gradients[static_cast<long long>(y) * fine.width() + x];
            float const slope = 1 - std::exp(-steepness * std::hypot(g.x, g.y));
            fine.at(x, y) = fromHue(0.12F + 0.72F * slope, 0.15F * std::sqrt(slope),
                                    std::atan2(g.y, g.x) + 0.5F);
        }
    return fine.reduced(kSamples);
}

}  // namespace drawing
