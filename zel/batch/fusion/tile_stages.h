#pragma once

#include "zel/batch/fusion/stage.h"

// The stages that belong to no node: they save a tile, or fill one from a view.
namespace zel {

namespace detail {

/// The last stage of a fusion: writes the tile to arrays of the block at `out`, one of values, or
/// four of duals.
StageForms resultStage(Aim aim);

/// Copies the tile to the spill tile at `out`, and calls the next stage.
StageForms spillStage(Aim aim);

/// Fills a tile of duals: the values from the array `in[0]`, and for all of them the one gradient
/// whose three components are at `in[1]`.
StageForms viewStage();

/// Fills a tile of duals: the values from the array `in[0]`, and the components of the gradients
/// from the three that follow.
StageForms dualChildStage();

/// Runs `stages` over `count` positions, a tile at a time. Writes whole tiles, so that up to a tile
/// less one float is written past `count`. Needs AVX2; uses AVX-512 where the process may and the
/// positions are more than an AVX2 tile.
void runStages(Stage const* stages, int count, Aim aim);

/// Whether runStages() writes no value past `count`.
bool endsWithTile(int count);

}  // namespace detail
}  // namespace zel
