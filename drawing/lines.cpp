#include "drawing/lines.h"

#include <algorithm>
#include <cmath>

namespace drawing {

using zel::float3;

float coverage(float distance, float width) {
    return std::clamp(width / 2 - distance + 0.5F, 0.0F, 1.0F);
}

float3 toPixels(View const& view, Image const& image, float3 const& position) {
    float const scale = static_cast<float>(image.width()) / view.width;
    return {static_cast<float>(image.width()) / 2 + (position.x - view.x) * scale,
            static_cast<float>(image.height()) / 2 - (position.y - view.y) * scale, 0};
}

void drawLine(Image& image, float3 const& from, float3 const& to, Pen const& pen) {
    float const dx = to.x - from.x;
    float const dy = to.y - from.y;
    float const square = dx * dx + dy * dy;
    if (!std::isfinite(square) || !std::isfinite(from.x) || !std::isfinite(from.y)) return;

    float const reach = pen.width / 2 + 1;
    auto const first = [&](float a, float b, int size) {
        return static_cast<int>(std::clamp(std::min(a, b) - reach, 0.0F, static_cast<float>(size)));
    };
    auto const end = [&](float a, float b, int size) {
        return static_cast<int>(std::clamp(std::max(a, b) + reach, 0.0F, static_cast<float>(size)));
    };
    int const endX = end(from.x, to.x, image.width());
    int const endY = end(from.y, to.y, image.height());
    for (int y = first(from.y, to.y, image.height()); y < endY; ++y)
        for (int x = first(from.x, to.x, image.width()); x < endX; ++x) {
            float const px = static_cast<float>(x) + 0.5F - from.x;
            float const py = static_cast<float>(y) + 0.5F - from.y;
            float const along =
                square > 0 ? std::clamp((px * dx + py * dy) / square, 0.0F, 1.0F) : 0;
            float const distance = std::hypot(px - along * dx, py - along * dy);
            float const covered = coverage(distance, pen.width);
            image.at(x, y) = mix(image.at(x, y), pen.color, pen.opacity * covered);
        }
}

}  // namespace drawing
