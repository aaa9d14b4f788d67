#pragma once

#include <stop_token>

#include <zel/volume/build_volume.h>

#include "options.h"

// The subcommands. Each throws an exception for any error, with a text of one line; zel::Stopped if
// a stop is requested.
namespace command {

/// The box of the options.
inline zel::Box boxOf(std::array<float, 6> const& box) {
    return {{box[0], box[1], box[2]}, {box[3], box[4], box[5]}};
}

void show(ShowOptions const& options);
void eval(EvalOptions const& options, std::stop_token const& stop);
void slice(SliceOptions const& options, std::stop_token const& stop);
void mesh(MeshOptions const& options, std::stop_token const& stop);
void render(RenderOptions const& options, std::stop_token const& stop);
void volume(VolumeOptions const& options, std::stop_token const& stop);
void info(InfoOptions const& options);
void bench(BenchOptions const& options, std::stop_token const& stop);

}  // namespace command
