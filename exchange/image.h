#pragma once

#include <algorithm>
#include <cmath>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <limits>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "zel_exchange/api.h"
#include "zel_exchange/error.h"

// Grey and coloured images in .png files, of 8 or 16 bits a sample.
namespace zel {

/// Rows of pixels, the first row at the top. A pixel has 1 sample, its grey, or 3: red, green and
/// blue.
template <class Sample> struct Image {
    std::size_t width = 0, height = 0;
    int channels = 1;
    std::vector<Sample> samples;  ///< width * height * channels, pixel by pixel
};
using Image8 = Image<std::uint8_t>;
using Image16 = Image<std::uint16_t>;

/// The sample nearest to a value: 0 for `low` and below and for a NaN, the largest sample for
/// `high` and above. `low` may be above `high`, which gives a negative.
template <std::unsigned_integral Sample>
requires(sizeof(Sample) <= 2) Sample sampleOf(float value, float low = 0, float high = 1) {
    constexpr double kLargest = std::numeric_limits<Sample>::max();
    double const t = (double{value} - low) / (double{high} - low);
    return t > 0 ? static_cast<Sample>(std::lround(std::min(t, 1.0) * kLargest)) : Sample{0};
}

/// Writes a .png file, which appears when it is complete: see OutputFile. Throws FileError;
/// std::invalid_argument for an image without pixels, with a side above 2^31 - 1, with other than 1
/// or 3 channels, or with other than width * height * channels samples.
ZEL_EXCHANGE_API void writePng(std::filesystem::path const& path, Image8 const& image);
ZEL_EXCHANGE_API void writePng(std::filesystem::path const& path, Image16 const& image);

using AnyImage = std::variant<Image8, Image16>;

/// Reads a .png file. A palette becomes colours, fewer than 8 bits become 8, and opacity is
/// dropped. Throws FileError if it is not a whole .png file, or if its image takes more than
/// `mostBytes`, before memory is allocated for it.
ZEL_EXCHANGE_API AnyImage readPng(std::filesystem::path const& path,
                                  std::size_t mostBytes = std::size_t{1} << 30);
/// The same for bytes in memory; `name` stands for the file in errors.
ZEL_EXCHANGE_API AnyImage readPng(std::span<std::byte const> memory, std::string const& name,
                                  std::size_t mostBytes = std::size_t{1} << 30);

}  // namespace zel
