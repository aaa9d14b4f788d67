#include "drawing/image.h"

#include <algorithm>
#include <cmath>

namespace drawing {

namespace {

std::uint8_t encoded(float linear) {
    float const v = linear > 0 ? std::min(linear, 1.0F) : 0.0F;  // 0 for a NaN
    float const s = v <= 0.0031308F ? 12.92F * v : 1.055F * std::pow(v, 1 / 2.4F) - 0.055F;
    return static_cast<std::uint8_t>(std::lround(s * 255));
}

}  // namespace

Image::Image(int width, int height, Color const& fill)
    : columns(width), rows(height),
      colors(static_cast<std::size_t>(width) * static_cast<std::size_t>(height), fill) {}

Image Image::reduced(int factor) const {
    Image result(columns / factor, rows / factor);
    float const weight = 1 / static_cast<float>(factor * factor);
    for (int y = 0; y < result.rows; ++y)
        for (int x = 0; x < result.columns; ++x) {
            Color sum;
            for (int i = 0; i < factor * factor; ++i)
                sum += at(x * factor + i % factor, y * factor + i / factor);
            result.at(x, y) = sum * weight;
        }
    return result;
}

void Image::place(Image const& image, int x, int y) {
    for (int row = 0; row < image.rows; ++row)
        for (int column = 0; column < image.columns; ++column)
            at(x + column, y + row) = image.at(column, row);
}

std::vector<std::uint8_t> Image::toBytes() const {
    std::vector<std::uint8_t> bytes;
    bytes.reserve(colors.size() * 3);
    for (Color const& color : colors)
        for (int c = 0; c < 3; ++c) bytes.push_back(encoded(color[c]));
    return bytes;
}

void forEachBand(int width, int height, Progress const& progress,
                 std::function<void(int top, int rows)> const& draw) {
    int const most = std::max((1 << 19) / width, 1);
    for (int top = 0; top < height; top += most) {
        int const rows = std::min(most, height - top);
        draw(top, rows);
        auto const done = static_cast<std::size_t>(top) + static_cast<std::size_t>(rows);
        if (progress) progress(done, static_cast<std::size_t>(height));
    }
}

Image inBands(int width, int height, Progress const& progress,
              std::function<Image(int top, int rows)> const& drawBand) {
    Image image(width, height);
    forEachBand(width, height, progress,
                [&](int top, int rows) { image.place(drawBand(top, rows), 0, top); });
    return image;
}

Image contactSheet(std::vector<Image> const& panels, int columns) {
    constexpr int kGap = 8;
    int const count = static_cast<int>(panels.size());
    int const rows = (count + columns - 1) / columns;
    int const width = panels.front().width() + kGap;
    int const height = panels.front().height() + kGap;
    Image sheet(columns * width + kGap, rows * height + kGap, {1, 1, 1});
    for (int i = 0; i < count; ++i)
        sheet.place(panels[static_cast<std::size_t>(i)], kGap + i % columns * width,
                    kGap + i / columns * height);
    return sheet;
}

}  // namespace drawing
