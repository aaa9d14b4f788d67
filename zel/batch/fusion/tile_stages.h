#pragma once

#include "zel/batch/fusion/stage.h"

// The stages that belong to no node: they save a tile, or fill one from a view.
namespace zel {

namespace detail {

/// The last stage of a fusion: writes the tile to arrays of the block at `out`, one of values, or
/// four of duals.
Stage::Run resultStage(Aim aim);

/// Copies the tile to the spill tile at `out`, and calls the next stage.
Stage::Run spillStage(Aim aim);

/// Fills a tile of duals: the values from the array `in[0]`, and for all of them the one gradient
/// whose three components are at `in[1]`.
Stage::Run viewStage();

/// Fills a tile of duals: the values from the array `in[0]`, and the components of the gradients
/// from the three that follow.
Stage::Run dualChildStage();

/// Runs `stages` over `count` positions, a tile at a time. Writes whole tiles, so that up to a tile
/// less one float is written past `count`. Needs AVX2.
void runStages(Stage const* stages, int count, Aim aim);

}  // namespace detail
}  // namespace zel
