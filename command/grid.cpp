#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "commands.h"

namespace command {

namespace {

/// A part of a voxel by which decimals may be rounded.
constexpr double kTolerance = 1e-4;

std::string textOf(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", number);
    return text;
}

/// The edge of the box along an axis.
struct Edge {
    Edge(std::array<double, 6> const& box, std::size_t axis_)
        : axis(axis_), low(box[axis]), high(box[axis + 3]) {
        if (low > high) fail("the low corner comes first");
    }
    [[noreturn]] void fail(std::string const& why) const {
        throw std::runtime_error("--box from " + textOf(low) + " to " + textOf(high) + " along " +
                                 "xyz"[axis] + ": " + why);
    }

    std::size_t axis;
    double low, high;
};

}  // namespace

std::array<std::uint64_t, 3> samplesOf(GridOptions const& options) {
    std::array<std::uint64_t, 3> counts{};
    double all = 1;
    std::string const size = "--voxel " + textOf(options.voxel);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        Edge const edge(options.box, axis);
        double const steps = std::floor((edge.high - edge.low) / options.voxel + kTolerance);
        if (!(steps < 0x1p30)) edge.fail("has more than 2^30 samples with " + size);
        counts[axis] = static_cast<std::uint64_t>(steps) + 1;
        all *= steps + 1;
    }
    if (!(all < 0x1p59))  // of up to 12 bytes; the size of a file is below 2^63
        throw std::runtime_error("--box and " + size + " give " + textOf(all) +
                                 " samples, more than a .npy file can have");
    return counts;
}

void checkCorners(std::array<double, 6> const& box) {
    for (std::size_t axis = 0; axis < 3; ++axis) Edge(box, axis);
}

double checkVoxels(GridOptions const& options) {
    double const voxel = options.voxel;
    double all = 1;
    std::string const size = "--voxel " + textOf(voxel);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        Edge const edge(options.box, axis);
        if (!(static_cast<float>(edge.low) < static_cast<float>(edge.high))) edge.fail("is empty");
        if (!(std::max(std::abs(edge.low), std::abs(edge.high)) < 0x1p28 * voxel))
            edge.fail("reaches farther than 2^28 times " + size + " from the origin");
        double const samples = std::floor(edge.high / voxel + kTolerance) -
                               std::ceil(edge.low / voxel - kTolerance) + 1;
        if (samples < 1) edge.fail("has no sample at a multiple of " + size);
        all *= samples;
    }
    constexpr double kLeastVolume = 3e-15;  // that OpenVDB does not take for 0
    if (voxel * voxel * voxel < kLeastVolume)
        throw std::runtime_error(size + " is too small for OpenVDB");
    return all;
}

}  // namespace command
