#pragma once

#include <cstddef>

#include "zel/batch/fusion/stage.h"
#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/simd_target.h"

// Makes the functions of a stage, one for each width, from its work.
namespace zel {

namespace detail {

/// The tile of a stage: the eight vectors.
template <class Width> struct Tile {
    using Vector = typename Width::Vector;
    Vector &v0, &v1, &v2, &v3, &v4, &v5, &v6, &v7;
};

/// The base of the work of a stage.
struct StageWork {
    static constexpr bool kIsLast = false;  ///< whether no stage is called next
};

// The two functions differ in their target, which a template cannot choose.

#ifdef __clang__

template <class Work>
ZEL_WIDE_TARGET __attribute__((flatten)) void runAvx2(Stage const* stage, std::ptrdiff_t at,
                                                      Float8* v) {
    Work::run(*stage, at, Tile<Avx2>{v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]});
    if constexpr (!Work::kIsLast) stage[1].run.avx2(stage + 1, at, v);
}
template <class Work>
ZEL_WIDEST_TARGET __attribute__((flatten)) void runAvx512(Stage const* stage, std::ptrdiff_t at,
                                                          Float16* v) {
    Work::run(*stage, at, Tile<Avx512>{v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]});
    if constexpr (!Work::kIsLast) stage[1].run.avx512(stage + 1, at, v);
}

#else

// The eight vectors come and go as arguments, since only then they stay in registers between
// stages.

template <class Work>
ZEL_WIDE_TARGET __attribute__((flatten)) void runAvx2(Stage const* stage, std::ptrdiff_t at,
                                                      Float8 v0, Float8 v1, Float8 v2, Float8 v3,
                                                      Float8 v4, Float8 v5, Float8 v6, Float8 v7) {
    Work::run(*stage, at, Tile<Avx2>{v0, v1, v2, v3, v4, v5, v6, v7});
    if constexpr (!Work::kIsLast) stage[1].run.avx2(stage + 1, at, v0, v1, v2, v3, v4, v5, v6, v7);
}
template <class Work>
ZEL_WIDEST_TARGET __attribute__((flatten)) void
runAvx512(Stage const* stage, std::ptrdiff_t at, Float16 v0, Float16 v1, Float16 v2, Float16 v3,
          Float16 v4, Float16 v5, Float16 v6, Float16 v7) {
    Work::run(*stage, at, Tile<Avx512>{v0, v1, v2, v3, v4, v5, v6, v7});
    if constexpr (!Work::kIsLast)
        stage[1].run.avx512(stage + 1, at, v0, v1, v2, v3, v4, v5, v6, v7);
}

#endif

/// The functions of a stage. `Work` has a function `run(stage, at, tile)` that reads or sets a tile
/// of any width. That is a template marked ZEL_ALWAYS_INLINE, so that it is compiled as part of
/// each function for that function's target. It must not compute with whole vectors, which would be
/// compiled for the target of the library before.
template <class Work> inline constexpr StageForms kStageForms{runAvx2<Work>, runAvx512<Work>};

/// The work of a stage whose loop goes over the floats of the tile: `Loop::run(stage, at, floats)`,
/// with an array of 64 or 128 floats. What it calls is inlined into the loop, which becomes vector
/// code.
template <class Loop> struct LoopStage : StageWork {
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at, Tile<Width> tile) {
#ifdef __clang__
        // In place: clang would leave a copy in memory too.
        Loop::run(stage, at, *reinterpret_cast<float(*)[Width::kTileSize]>(&tile.v0));
#else
        auto& [v0, v1, v2, v3, v4, v5, v6, v7] = tile;
        typename Width::Vector v[] = {v0, v1, v2, v3, v4, v5, v6, v7};
        float floats[Width::kTileSize];
        static_assert(sizeof v == sizeof floats);
        __builtin_memcpy(floats, v, sizeof floats);
        Loop::run(stage, at, floats);
        __builtin_memcpy(v, floats, sizeof floats);
        v0 = v[0], v1 = v[1], v2 = v[2], v3 = v[3];
        v4 = v[4], v5 = v[5], v6 = v[6], v7 = v[7];
#endif
    }
};

}  // namespace detail
}  // namespace zel
