// A landscape of fractal noise, and the same with its heights remapped by curves. Below each
// landscape is its curve: the original height to the right, the remapped height upwards.

#include "drawing/lines.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

namespace {

using Orvane::Math::FCurve;
using CurvePtr = Quern::Ptr<FCurve>;

constexpr int kSize = 336;
constexpr RampStyle kRelief{.ramp = terrain, .low = -0.9F, .high = 0.9F, .relief = 0.35F};

CurvePtr straight() {
    return make<FCurve>(std::vector<FCurve::Key>{{-1, -1}, {1, 1}}, FCurve::Extrapolation::kLinear,
                        FCurve::Extrapolation::kLinear);
}

/// A shallow sea, a beach, and slopes that steepen towards the peaks.
CurvePtr island() {
    using enum FCurve::Segment;
    return make<FCurve>(std::vector<FCurve::Key>{{-1, -0.85, 0.2, 0.2, kCubic},
                                                 {-0.1, -0.4, 0.9, 0.9, kCubic},
                                                 {0.05, -0.2, 0.25, 0.25, kCubic},
                                                 {0.3, 0.0, 1.5, 1.5, kCubic},
                                                 {1, 1.3, 1.8, 1.8, kLinear}},
                        FCurve::Extrapolation::kLinear, FCurve::Extrapolation::kLinear);
}

/// Steps, each a flat tread and a steep riser, along value = x from -1 to 1.
CurvePtr terraces() {
    constexpr int kSteps = 8;
    constexpr double kHeight = 2.0 / kSteps;
    constexpr double kSlope = 0.15;  // of a tread, where it meets the riser
    std::vector<FCurve::Key> keys;
    for (int i = 0; i < kSteps; ++i) {
        double const x = -1 + i * kHeight;
        keys.push_back({x, x, kSlope, kSlope, FCurve::Segment::kLinear});
        double const edge = x + 0.6 * kHeight;
        keys.push_back({edge, x + kSlope * 0.6 * kHeight, kSlope, kSlope, FCurve::Segment::kCubic});
    }
    keys.push_back({1, 1, kSlope, kSlope, FCurve::Segment::kLinear});
    auto const end = FCurve::Extrapolation::kCycleWithOffset;
    return make<FCurve>(std::move(keys), end, end);
}

/// Draws the curve as a cross section of land, from -1.2 to 1.2 along both axes.
Image chart(Meter& meter, CurvePtr const& curve) {
    constexpr View kView{0, 0, 2.4F};
    Color const ink = fromHex(0x1A1A1A);
    ScalarPtr const height = make<zel::ScalarFieldFCurve>(xPosition(), curve);
    // The area below the curve has the colour of the height.
    Image image(kSize, kSize, fromHex(0xF4F3EF));
    auto const places = pixelPositions(kView, kSize, kSize);
    auto const heights = meter.values(*height, places);
    for (int y = 0; y < kSize; ++y)
        for (int x = 0; x < kSize; ++x) {
            long long const i = static_cast<long long>(y) * kSize + x;
            float const h = (*heights)[i];
            if (places[i].y < h)
                image.at(x, y) = terrain((h - kRelief.low) / (kRelief.high - kRelief.low));
        }
    auto const line = [&](float3 const& from, float3 const& to, Pen const& pen) {
        drawLine(image, toPixels(kView, image, from), toPixels(kView, image, to), pen);
    };
    constexpr float kEdge = 1.2F;
    for (int i = -4; i <= 4; ++i) {
        float const at = 0.25F * static_cast<float>(i);
        Pen const pen{ink, i == 0 ? 1.4F : 1.0F, i == 0 ? 0.55F : 0.13F};
        line({at, -kEdge, 0}, {at, kEdge, 0}, pen);
        line({-kEdge, at, 0}, {kEdge, at, 0}, pen);
    }
    for (int x = 1; x < kSize; ++x)
        line({places[x - 1].x, (*heights)[x - 1], 0}, {places[x].x, (*heights)[x], 0}, {ink, 2.2F});
    return image;
}

}  // namespace

Image drawRemap(Meter& meter) {
    CurvePtr const curves[] = {straight(), island(), terraces()};
    std::vector<Image> panels;
    for (CurvePtr const& curve : curves) {
        ScalarPtr const land = make<zel::ScalarFieldFCurve>(loadScalar("mountains"), curve);
        panels.push_back(plotRamp(meter, *land, View{0, 0, 3}, kSize, kSize, kRelief));
    }
    for (CurvePtr const& curve : curves) panels.push_back(chart(meter, curve));
    return contactSheet(panels, 3);
}

}  // namespace examples
