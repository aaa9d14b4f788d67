#include <array>
#include <cmath>
#include <cstdio>

#include <zel_exchange/vdb.h>

#include "commands.h"
#include "session.h"

namespace command {

namespace {

/// With the digits that floats have: voxels of 0.02 are those of a float in most files.
std::string listOf(std::array<double, 3> const& numbers) {
    char text[96];
    std::snprintf(text, sizeof text, "%.7g, %.7g, %.7g", numbers[0] + 0.0, numbers[1] + 0.0,
                  numbers[2] + 0.0);
    return text;
}

/// Where the voxels lie: how wide they are, the place of the first, and the directions of the axes,
/// if these are not those of the world.
std::string placeText(zel::AffineMap const& map) {
    std::array<double, 3> widths{}, origin{};
    std::array<std::array<double, 3>, 3> axes{};
    bool isAlong = true;
    for (std::size_t c = 0; c < 3; ++c) {
        origin[c] = map[c][3];
        widths[c] = std::hypot(map[0][c], map[1][c], map[2][c]);
        for (std::size_t r = 0; r < 3; ++r) {
            axes[c][r] = widths[c] > 0 ? map[r][c] / widths[c] : 0;
            isAlong = isAlong && (r == c ? map[r][c] > 0 : map[r][c] == 0);
        }
    }
    std::string text = "  voxel: " + listOf(widths) + "\n  origin: " + listOf(origin) + "\n";
    for (std::size_t c = 0; c < 3 && !isAlong; ++c)
        text += std::string("  axis ") + "xyz"[c] + ": " + listOf(axes[c]) + "\n";
    return text;
}

}  // namespace

void info(InfoOptions const& options) {
    std::string text;
    for (zel::VdbGrid const& grid : zel::listVdb(options.file)) {
        text += printable(grid.name) + ": " + printable(grid.type);
        if (grid.isHalf) text += " as half";
        if (!grid.isReadable) text += ", not readable";
        text += '\n';
        text += grid.indexToWorld ? placeText(*grid.indexToWorld)
                                  : "  transform: not affine, or cut, and not readable\n";
        for (auto const& [key, value] : grid.metadata)
            text += "  " + printable(key) + ": " + printable(value) + '\n';
    }
    print(text);
}

}  // namespace command
