// Regular patterns above; below, the same patterns at positions displaced by noise.

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

namespace {

/// A vector of three independent noises.
VectorPtr noiseVector(float octaves, float frequency, std::int64_t seed) {
    return make<zel::VectorFieldFromComponents>(fractalNoise(octaves, frequency, seed),
                                                fractalNoise(octaves, frequency, seed + 1),
                                                fractalNoise(octaves, frequency, seed + 2));
}

/// The year rings of a trunk along z: the wood darkens within each ring.
ScalarPtr yearRings() {
    using Orvane::Math::FCurve;
    auto const year =
        make<FCurve>(std::vector<FCurve::Key>{{0, 0, 0, 0.2, FCurve::Segment::kCubic},
                                              {0.8, 1, 3, 0, FCurve::Segment::kLinear},
                                              {1, 0, 0, 0, FCurve::Segment::kLinear}},
                     FCurve::Extrapolation::kCycle, FCurve::Extrapolation::kCycle);
    return make<zel::ScalarFieldFCurve>(moved(cylinder(0.0F), {-0.5F, -1.6F, 0}) * 5.0F, year);
}

}  // namespace

Image drawWarp(Meter& meter) {
    constexpr int kSize = 336;
    View const view{0, 0, 4};
    PlotStyle const lines{.scale = 0.5F, .spacing = 0.2F, .zeroWidth = 2.0F};
    RampStyle const grain{.ramp = wood, .low = 0, .high = 1};
    RampStyle const stone{.ramp = marble, .low = 0, .high = 1};

    ScalarPtr const checks = sine(xPosition() * 6.0F) * sine(yPosition() * 6.0F);
    ScalarPtr const rings = yearRings();
    ScalarPtr const stripes = absolute(sine(xPosition() * 3.5F + yPosition() * 2.2F));
    ScalarPtr const bentChecks = displaced(checks, noiseVector(2, 0.7F, 30) * 0.5F);
    ScalarPtr const grown = displaced(rings, noiseVector(3, 0.8F, 60) * 0.22F);
    return contactSheet({plot(meter, *checks, view, kSize, kSize, lines),
                         plotRamp(meter, *rings, view, kSize, kSize, grain),
                         plotRamp(meter, *stripes, view, kSize, kSize, stone),
                         plot(meter, *bentChecks, view, kSize, kSize, lines),
                         plotRamp(meter, *grown, view, kSize, kSize, grain),
                         plotRamp(meter, *loadScalar("marble"), view, kSize, kSize, stone)},
                        3);
}

}  // namespace examples
