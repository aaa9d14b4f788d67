#pragma once

#include <array>
#include <cstdint>
#include <stop_token>

#include <zel/volume/build_volume.h>

#include "options.h"
#include "ranks.h"

// The subcommands. Each throws an exception for any error, with a text of one line; zel::Stopped if
// a stop is requested. Those that take ranks share their work among them.
namespace command {

/// The box of the options.
inline zel::Box boxOf(GridOptions const& options) {
    auto const at = [&](std::size_t i) { return static_cast<float>(options.box[i]); };
    return {{at(0), at(1), at(2)}, {at(3), at(4), at(5)}};
}

/// How many samples a .npy file has along each axis: at low + i * voxel, up to the high corner. A
/// box of a whole number of voxels has samples on both faces, however it is rounded. Throws
/// std::runtime_error, with the axis, for a box that has none or too many.
std::array<std::uint64_t, 3> samplesOf(GridOptions const& options);
/// Returns the number of samples at multiples of the voxel size. Throws std::runtime_error, with
/// the axis, for a box without any, or with those that OpenVDB cannot have.
double checkVoxels(GridOptions const& options);
/// Throws std::runtime_error, with the axis, unless the low corner comes first.
void checkCorners(std::array<double, 6> const& box);

void show(ShowOptions const& options);
void eval(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop);
void slice(SliceOptions const& options, std::stop_token const& stop);
void mesh(MeshOptions const& options, std::stop_token const& stop);
void render(RenderOptions const& options, std::stop_token const& stop);
void volume(VolumeOptions const& options, Ranks& ranks, std::stop_token const& stop);
void info(InfoOptions const& options);
void bench(BenchOptions const& options, std::stop_token const& stop);

}  // namespace command
