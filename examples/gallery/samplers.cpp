// Rings in a coarse volume, magnified 16 times: a wave is 5 voxels long, and 10 on the right of the
// line. The upper row shows the values by each sampler and the rings themselves, the lower row the
// gradients: hue by direction, brightness by slope.

#include <numbers>

#include "binder.h"
#include "drawing/lines.h"
#include "gallery/gallery.h"
#include "gallery/volume_object.h"

namespace examples {

Image drawSamplers(Meter& meter) {
    constexpr float kHalfWidth = 2;
    constexpr int kDepth = 4;                                 // of the coarse side
    constexpr float kVoxel = 2 * kHalfWidth / (4 << kDepth);  // its width
    constexpr int kVoxels = 18, kMagnified = 16;
    constexpr int kSize = kVoxels * kMagnified;
    // Away from the origin, near which the finite differences of the gradient are so small that
    // rounding errors show.
    constexpr float kJump = 0.25F;
    constexpr View kView{kJump, 0.4F, kVoxels * kVoxel};
    float const frequency = 2 * std::numbers::pi_v<float> / (5 * kVoxel);

    ScalarPtr const radius = make<zel::ScalarFieldSphere>(float3{-0.45F, 0.1F, 0}, 0.0F);
    ScalarPtr const rings = sine(radius * frequency);
    VolumeObject const volume = makeVolume(
        rings, kHalfWidth, kDepth + 1,
        [=](float3 const& low, float3 const&, int depth) {
            return depth <= kDepth || low.x > kJump - kVoxel / 2;
        },
        0.0F);

    std::vector<ScalarPtr> fields;
    fields.reserve(std::size(kSamplerTypes) + 1);
    for (zel::SamplerType const type : kSamplerTypes)
        fields.push_back(bindTree(volumeField(type), volume.object));
    fields.push_back(rings);
    std::vector<Image> panels;
    panels.reserve(2 * fields.size());
    for (ScalarPtr const& field : fields)
        panels.push_back(plot(meter, *field, kView, kSize, kSize,
                              {.scale = 0.6F, .spacing = 0.25F, .zeroWidth = 2.0F}));
    for (ScalarPtr const& field : fields)
        panels.push_back(plotGradient(meter, *field, kView, kSize, kSize, 1.5F / frequency));
    for (Image& panel : panels) {
        float const x = static_cast<float>(kSize) / 2;
        drawLine(panel, {x, 0, 0}, {x, static_cast<float>(kSize), 0}, {{1, 1, 1}, 1.0F, 0.7F});
    }
    return contactSheet(panels, 4);
}

}  // namespace examples
