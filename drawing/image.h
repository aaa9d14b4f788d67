#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zel_platform/orvane_math/vectors.h"

namespace drawing {

/// Red, green and blue as x, y and z, in linear light, 0 to 1.
using Color = Orvane::Math::float3;

/// Is told how many rows of a picture are drawn.
using Progress = std::function<void(std::size_t done, std::size_t all)>;

/// Rows of colours, the first row at the top.
class Image {
public:
    Image(int width, int height, Color const& fill = {});

    int width() const { return columns; }
    int height() const { return rows; }
    Color& at(int x, int y) { return colors[index(x, y)]; }
    Color const& at(int x, int y) const { return colors[index(x, y)]; }

    /// A smaller image: each pixel is the mean of `factor` by `factor` pixels of this image.
    Image reduced(int factor) const;

    /// Copies `image`, which must fit, into this one with its top left corner at (x, y).
    void place(Image const& image, int x, int y);

    /// Three bytes a pixel, in the sRGB encoding.
    std::vector<std::uint8_t> toBytes() const;

private:
    std::size_t index(int x, int y) const {
        return static_cast<std::size_t>(y) * static_cast<std::size_t>(columns) +
               static_cast<std::size_t>(x);
    }

    int columns, rows;
    std::vector<Color> colors;
};

/// Calls `draw(top, rows)` for bands of rows that make up an image, from the top down, so that a
/// large image needs little memory beside it. A band has about half a million pixels.
void forEachBand(int width, int height, Progress const& progress,
                 std::function<void(int top, int rows)> const& draw);
/// An image of the bands that `drawBand` returns.
Image inBands(int width, int height, Progress const& progress,
              std::function<Image(int top, int rows)> const& drawBand);

/// Arranges images of equal size in rows of `columns`, with white space between and around them.
Image contactSheet(std::vector<Image> const& panels, int columns);

}  // namespace drawing
