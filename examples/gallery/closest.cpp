// Closest points on an implicit blossom whose field is not a distance. Left: the paths of repeated
// steps from a grid to the surface. Right: noise evaluated at the closest point of each position,
// so that it is constant along lines across the surface.

#include "drawing/lines.h"
#include "gallery/gallery.h"
#include "scene_files.h"

namespace examples {

namespace {

constexpr int kSize = 512;
constexpr View kView{0, 0, 3.4F};
constexpr int kSteps = 16;

/// Draws the points of a grid, their positions after 1, 2, ... steps, and their final positions.
void drawPaths(Meter& meter, ScalarPtr const& field, Image& image) {
    constexpr int kGrid = 16;
    Quern::Array<float3> const grid = pixelPositions(kView, kGrid, kGrid);
    Quern::Array<float3> places = grid;
    Pen const path{fromHex(0x1A1A1A), 1.4F, 0.75F};
    auto const dot = [&](float3 const& place, Color const& color, float width) {
        float3 const at = toPixels(kView, image, place);
        drawLine(image, at, at, {fromHex(0x1A1A1A), width + 2});
        drawLine(image, at, at, {color, width});
    };
    for (int count = 0; count <= kSteps; ++count) {
        auto const steps = make<zel::VectorFieldIteratedNearPointTransform>(field, 0.0F, count);
        auto const next = meter.values(*steps, grid);
        for (long long i = 0; i < grid.size(); ++i)
            drawLine(image, toPixels(kView, image, places[i]), toPixels(kView, image, (*next)[i]),
                     path);
        places = *next;
    }
    for (float3 const& place : grid) dot(place, fromHex(0xFFFFFF), 3);
    for (float3 const& place : places) dot(place, fromHex(0xFFD84A), 5);
}

}  // namespace

Image drawClosest(Meter& meter) {
    ScalarPtr const field = loadScalar("blossom");
    PlotStyle const style{.scale = 0.5F, .spacing = 0.1F, .zeroWidth = 3.0F};
    Image paths = plot(meter, *field, kView, kSize, kSize, style);
    drawPaths(meter, field, paths);

    VectorPtr const nearest =
        make<zel::VectorFieldIteratedNearPointTransform>(field, 1e-3F, kSteps);
    ScalarPtr const pattern = make<zel::ScalarFieldWarp>(fractalNoise(3, 2.2F, 4), nearest);
    ScalarPtr const outlined =
        make<zel::ScalarFieldSwitch>(absolute(field) - 0.012F, pattern, constant(-9));
    return contactSheet({paths, plot(meter, *outlined, kView, kSize, kSize,
                                     {.scale = 0.45F, .spacing = 0, .zeroWidth = 0})},
                        2);
}

}  // namespace examples
