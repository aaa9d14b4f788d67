// Discs whose centers and radii are properties of an object: each pixel reads those of its element,
// the disc whose center is nearest.

#include <zel_scene/bind.h>

#include "drawing/plot.h"
#include "gallery/gallery.h"
#include "scene_files.h"
#include "zel/field/math.h"

namespace examples {

Image drawDiscs(Meter& meter) {
    constexpr View kView{0, 0, 4};
    constexpr int kWidth = 800;
    constexpr int kHeight = 450;
    constexpr int kDiscs = 48;
    // Along a spiral, as the seeds of a sunflower.
    constexpr float kTurn = 2.3999632F;
    auto const centers = make<Quern::Array<float3>>();
    auto const radii = make<Quern::Array<float>>();
    for (int i = 0; i < kDiscs; ++i) {
        float const angle = kTurn * static_cast<float>(i);
        float const distance = 0.21F * std::sqrt(static_cast<float>(i));
        centers->push_back({distance * std::cos(angle), distance * std::sin(angle), 0});
        radii->push_back(0.05F + 0.09F * distance);
    }
    Orvane::Object object;
    Orvane::Geometry::setGeoProperty(object, "center", float3{}, centers);
    Orvane::Geometry::setGeoProperty(object, "radius", 0.0F, radii);

    auto const nearest = make<Quern::Array<long long>>();
    for (float3 const& p : pixelPositions(kView, kWidth * kSamples, kHeight * kSamples)) {
        long long least = 0;
        for (long long i = 1; i < kDiscs; ++i)
            if (Orvane::Math::length((*centers)[i] - p) <
                Orvane::Math::length((*centers)[least] - p))
                least = i;
        nearest->push_back(least);
    }
    ScalarPtr discs = loadScalar("discs");
    zel::bindStrictly(discs, object, nearest);
    PlotStyle const style{.scale = 0.25F, .spacing = 0.05F};
    return plot(meter, *discs, kView, kWidth, kHeight, style);
}

}  // namespace examples
