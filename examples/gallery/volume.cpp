// A solid as an adaptive volume, whose tiles are smaller near its surface. Trees that displace the
// volume by noise, one for each sampler type, are made first and bound to the volume afterwards.
// The picture shows slices with the borders of the tiles, and solids.

#include <array>
#include <cmath>
#include <set>

#include "binder.h"
#include "drawing/lines.h"
#include "drawing/tracer.h"
#include "gallery/gallery.h"
#include "gallery/volume_object.h"
#include "scene_files.h"
#include "zel/field/math.h"

namespace examples {

namespace {

constexpr float kHalfWidth = 1.5F;

/// The die, turned, as the distance from its surface.
VolumeObject makeDie(int depth) {
    ScalarPtr const die = turned(loadScalar("die"), {0.45F, 0.6F, 0.1F});
    auto const nearSurface = [&](float3 const& low, float3 const& high, int) {
        // The die's field is at most the distance in magnitude, so that no tile is missed.
        float const reach = Orvane::Math::length(high - low) / 2;
        return std::fabs(die->eval((low + high) * 0.5F, 0)) < reach;
    };
    return makeVolume(die, kHalfWidth, depth, nearSurface, 1.0F);
}

/// The volume with its surface displaced by noise; not bound yet.
ScalarPtr displacedVolume(zel::SamplerType type) {
    constexpr char const* kNames[] = {"linear", "cubicC0", "cubicC1"};
    return loadScalar("displaced_volume", "/nodes/volume/sampler", kNames[static_cast<int>(type)]);
}

/// Draws the borders of all tiles that the plane z = 0 cuts, each border once.
void drawTiles(ORV::TileTree3D::Container<ORV::TileTree3D::BinaryTraits> const& tree,
               View const& view, Image& image) {
    Pen const pen{fromHex(0x1A1A1A), 1.0F, 0.45F};
    for (int depth = 0; depth <= tree.depth(); ++depth) {
        int const width = tree.tile(0, depth).tileVoxelWidth();
        std::set<std::array<int, 4>> borders;  // from x, y to x, y
        for (long long i = 0; i < tree.tileCount(depth); ++i) {
            auto const [x, y, z] = tree.tile(i, depth).tijk();
            if (z > 0 || z + width <= 0) continue;
            for (int const far : {0, width}) {
                borders.insert({x + far, y, x + far, y + width});
                borders.insert({x, y + far, x + width, y + far});
            }
        }
        auto const at = [&](int x, int y) {
            float3 const place{static_cast<float>(x), static_cast<float>(y), 0};
            return toPixels(view, image, place * tree.voxelSize());
        };
        for (auto const& [x, y, toX, toY] : borders) drawLine(image, at(x, y), at(toX, toY), pen);
    }
}

}  // namespace

Image drawVolume(Meter& meter) {
    constexpr int kSize = 400;
    constexpr View kView{0, 0, 2.6F};
    VolumeObject const die = makeDie(5);
    std::vector<Image> slices;
    for (zel::SamplerType const type : kSamplerTypes) {
        ScalarPtr const field = bindTree(displacedVolume(type), die.object);
        PlotStyle const style{.scale = 0.35F, .spacing = 0, .zeroWidth = 2.6F};
        slices.push_back(plot(meter, *field, kView, kSize, kSize, style));
        drawTiles(*die.tree, kView, slices.back());
    }
    return contactSheet(slices, 3);
}

Image drawVolumeSolids(Meter& meter) {
    constexpr Color kColors[] = {
        {0.69F, 0.2F, 0.03F}, {0.05F, 0.32F, 0.13F}, {0.03F, 0.16F, 0.46F}};
    VolumeObject const die = makeDie(5);
    std::vector<Part> parts{
        {make<zel::ScalarFieldPlane>(float3{}, float3{0, 1, 0}), fromHex(0xC9C3B8)}};
    ScalarPtr all = parts.front().field;
    for (int i = 0; i < 3; ++i) {
        float3 const place{2.15F * static_cast<float>(i - 1), 0.95F, 0};
        ScalarPtr const tree =
            bounded(moved(displacedVolume(kSamplerTypes[i]), place), place, 1.1F);
        parts.push_back({bindTree(tree, die.object), kColors[i]});
        all = unite(all, parts.back().field);
    }
    Camera const camera{{0.5F, 2.35F, 7.6F}, {0.08F, 0.72F, 0}, 0.47F};
    // Noise makes the field steeper than a distance, so that steps must be shorter.
    return traceSolids(meter, *all, camera, 800, 400, 0.75F,
                       [&](auto const& at) { return albedoOfLeast(meter, parts, at); });
}

}  // namespace examples
