#pragma once

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

void show(ShowOptions const& options);
void eval(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop);
void slice(SliceOptions const& options, std::stop_token const& stop);
void mesh(MeshOptions const& options, std::stop_token const& stop);
void render(RenderOptions const& options, std::stop_token const& stop);
void volume(VolumeOptions const& options, Ranks& ranks, std::stop_token const& stop);
void info(InfoOptions const& options);
void bench(BenchOptions const& options, std::stop_token const& stop);

}  // namespace command
