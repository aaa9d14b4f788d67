#pragma once

#include <array>
#include <cstddef>

#include "zel/batch/float_vectors.h"

// A fusion goes through the positions of a block tile by tile. A stage is one step of that work: a
// function that takes a tile in eight vector registers, computes one node from it, and calls the
// next stage with the result in the same registers. docs/batches.md explains the whole. Where clang
// builds the library, the tile is eight vectors in memory instead.
namespace zel {

namespace detail {

/// Whether nodes are fused at all.
#if defined(__x86_64__) && defined(__GNUC__)
inline constexpr bool kFusesNodes = true;
#else
inline constexpr bool kFusesNodes = false;
#endif

/// What a fusion computes: the values of its root, or duals, which are values with their gradients.
enum class Aim { kValues, kDuals };

struct Stage;

/// A function for a stage, with registers of one width. `at` is the place of the tile's first
/// position in the block. clang would pass each vector through memory of its own, since the library
/// is not built for registers as wide: there all stages work on one tile in memory.
#ifdef __clang__
template <class Width>
using StageFunction = void (*)(Stage const* stage, std::ptrdiff_t at, typename Width::Vector* tile);
#else
template <class Width>
using StageFunction = void (*)(Stage const* stage, std::ptrdiff_t at, typename Width::Vector,
                               typename Width::Vector, typename Width::Vector,
                               typename Width::Vector, typename Width::Vector,
                               typename Width::Vector, typename Width::Vector,
                               typename Width::Vector);
#endif

/// The widths of the registers, by which all tiles of a block are computed. A tile is the floats of
/// eight vectors, as many positions in a tile of values. A tile of duals holds a quarter of them:
/// the values, then the x, the y and the z components of their gradients.
struct Avx2 {
    using Vector = Float8;
    static constexpr int kTileSize = 64, kDualTileSize = kTileSize / 4;
};
struct Avx512 {
    using Vector = Float16;
    static constexpr int kTileSize = 128, kDualTileSize = kTileSize / 4;
};

/// The same work by each width.
struct StageForms {
    StageFunction<Avx2> avx2;
    StageFunction<Avx512> avx512;
};

/// One element of the array of stages that a fusion runs. A stage calls the element behind its own.
struct Stage {
    StageForms run;
    void const* node;                ///< whose formula the stage computes, if any
    std::array<float const*, 4> in;  ///< inputs in memory; of a formula by the number of the child
    float* out;                      ///< where a stage writes that saves its tile
};

/// The stages of a formula of children. Element 0 reads all children from memory; element 1 + c
/// takes child `c` from the registers, and the others from memory.
struct FormulaStages {
    StageForms const* values;
    StageForms const* duals;
    bool choosesGradient;  ///< whether the gradient is that of one child, chosen by the values
};

/// The stages of a formula of the position, whose inputs are the arrays of x, y and z.
struct LeafStages {
    StageForms values;
    StageForms duals;
};

}  // namespace detail
}  // namespace zel
