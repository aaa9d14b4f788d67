#pragma once

#include <stop_token>

#include <zel_scene/bind.h>

#include "options.h"
#include "ranks.h"

namespace command {

/// Writes a .npy file of the values at all samples of a box.
void writeDense(zel::Tree const& tree, VolumeOptions const& options, Ranks& ranks,
                std::stop_token const& stop);

}  // namespace command
