// Stream lines of a jet, seen from the side. It enters at the left without a swirl; the noise that
// is added to it grows on its way.

#include <cmath>
#include <numbers>

#include "drawing/lines.h"
#include "gallery/gallery.h"
#include "trees.h"

namespace examples {

namespace {

constexpr int kWidth = 960;
constexpr int kHeight = 440;
constexpr int kFine = 2;  // samples for each pixel along an axis
constexpr int kLines = 2600;
constexpr int kSteps = 520;
constexpr float kStep = 0.0125F;  // of time
constexpr View kView{3.0F, 0, 6.2F};

VectorPtr jet() {
    VectorPtr const wind = make<zel::VectorFieldConstant>(float3{1, 0, 0});
    ScalarPtr const growth = clamp((xPosition() - 0.3F) * 0.3F, 0, 1);
    return wind + turbulence(4, 0.9F, 8, 0.55F) * (growth * 0.24F);
}

/// The starts of the stream lines, spread evenly over a disc across the jet.
Quern::Array<float3> starts() {
    constexpr float kRadius = 0.34F;
    constexpr float kTurn = std::numbers::pi_v<float> * 0.76393202F;  // the golden angle
    Quern::Array<float3> places(kLines);
    for (int i = 0; i < kLines; ++i) {
        float const radius = kRadius * std::sqrt((static_cast<float>(i) + 0.5F) / kLines);
        float const angle = kTurn * static_cast<float>(i);
        // The starts are shifted by fractions of a step, so that the joints do not line up.
        float const part = 0.618034F * static_cast<float>(i);
        float const back = kStep * (part - std::floor(part));
        places[i] = {-0.2F - back, radius * std::sin(angle), radius * std::cos(angle)};
    }
    return places;
}

}  // namespace

Image drawPlume(Meter& meter) {
    VectorPtr const flow = jet();
    Quern::Array<float3> places = starts();
    Image fine(kWidth * kFine, kHeight * kFine, fromHex(0x0B1020));
    std::vector<Pen> pens;
    for (int i = 0; i < kLines; ++i) {
        // The hue depends on the start in the disc, so that the mixing shows.
        float const hue = 0.9F + 9.0F * places[i].y;
        pens.push_back({fromHue(0.78F, 0.13F, hue), 1.2F, 0.16F});
    }
    for (int step = 0; step < kSteps; ++step) {
        auto const velocities = meter.values(*flow, places);
        for (int i = 0; i < kLines; ++i) {
            float3 const next = places[i] + (*velocities)[i] * kStep;
            drawLine(fine, toPixels(kView, fine, places[i]), toPixels(kView, fine, next),
                     pens[static_cast<std::size_t>(i)]);
            places[i] = next;
        }
    }
    return fine.reduced(kFine);
}

}  // namespace examples
