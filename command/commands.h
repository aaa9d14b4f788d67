#pragma once

#include <stop_token>

#include "options.h"

// The subcommands. Each throws an exception for any error, with a text of one line; zel::Stopped if
// a stop is requested.
namespace command {

void show(ShowOptions const& options);
void eval(EvalOptions const& options, std::stop_token const& stop);
void slice(SliceOptions const& options, std::stop_token const& stop);
void render(RenderOptions const& options, std::stop_token const& stop);
void volume(VolumeOptions const& options, std::stop_token const& stop);
void info(InfoOptions const& options);
void bench(BenchOptions const& options, std::stop_token const& stop);

}  // namespace command
