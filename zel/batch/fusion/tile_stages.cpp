#include "zel/batch/fusion/tile_stages.h"

#include <cstring>

#include "zel/batch/columns.h"
#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/simd_target.h"

namespace zel {

namespace detail {

namespace {

#define ZEL_TILE_PARAMETERS                                                                        \
    Stage const *stage, std::ptrdiff_t at, Float8 v0, Float8 v1, Float8 v2, Float8 v3, Float8 v4,  \
        Float8 v5, Float8 v6, Float8 v7
#define ZEL_TILE v0, v1, v2, v3, v4, v5, v6, v7

/// Writes the tile as four rows of two vectors, `step` floats apart. Each vector is copied by
/// itself: an array of them would make the compiler store the registers first.
ZEL_WIDE_TARGET ZEL_ALWAYS_INLINE inline void writeRows(float* to, std::ptrdiff_t step, Float8 v0,
                                                        Float8 v1, Float8 v2, Float8 v3, Float8 v4,
                                                        Float8 v5, Float8 v6, Float8 v7) {
    std::memcpy(to, &v0, sizeof v0);
    std::memcpy(to + 8, &v1, sizeof v1);
    std::memcpy(to + step, &v2, sizeof v2);
    std::memcpy(to + step + 8, &v3, sizeof v3);
    std::memcpy(to + 2 * step, &v4, sizeof v4);
    std::memcpy(to + 2 * step + 8, &v5, sizeof v5);
    std::memcpy(to + 3 * step, &v6, sizeof v6);
    std::memcpy(to + 3 * step + 8, &v7, sizeof v7);
}

ZEL_WIDE_TARGET void writeValues(ZEL_TILE_PARAMETERS) {
    writeRows(stage->out + at, kTileSize / 4, ZEL_TILE);
}

ZEL_WIDE_TARGET void writeDuals(ZEL_TILE_PARAMETERS) {
    writeRows(stage->out + at, kBlockSize, ZEL_TILE);
}

// A formula of values finds a spilled tile as it finds any array of the block, at `at`. A formula
// of duals reads its tiles from their beginning.

ZEL_WIDE_TARGET void spillValues(ZEL_TILE_PARAMETERS) {
    writeRows(stage->out + at, kTileSize / 4, ZEL_TILE);
    stage[1].run(stage + 1, at, ZEL_TILE);
}

ZEL_WIDE_TARGET void spillDuals(ZEL_TILE_PARAMETERS) {
    writeRows(stage->out, kTileSize / 4, ZEL_TILE);
    stage[1].run(stage + 1, at, ZEL_TILE);
}

ZEL_WIDE_TARGET void readView(ZEL_TILE_PARAMETERS) {
    float const* const values = stage->in[0] + at;
    std::memcpy(&v0, values, sizeof v0);
    std::memcpy(&v1, values + 8, sizeof v1);
    float const x = stage->in[1][0], y = stage->in[1][1], z = stage->in[1][2];
    v2 = v3 = Float8{x, x, x, x, x, x, x, x};
    v4 = v5 = Float8{y, y, y, y, y, y, y, y};
    v6 = v7 = Float8{z, z, z, z, z, z, z, z};
    stage[1].run(stage + 1, at, ZEL_TILE);
}

ZEL_WIDE_TARGET void readDuals(ZEL_TILE_PARAMETERS) {
    auto const [value, x, y, z] = stage->in;
    std::memcpy(&v0, value + at, sizeof v0);
    std::memcpy(&v1, value + at + 8, sizeof v1);
    std::memcpy(&v2, x + at, sizeof v2);
    std::memcpy(&v3, x + at + 8, sizeof v3);
    std::memcpy(&v4, y + at, sizeof v4);
    std::memcpy(&v5, y + at + 8, sizeof v5);
    std::memcpy(&v6, z + at, sizeof v6);
    std::memcpy(&v7, z + at + 8, sizeof v7);
    stage[1].run(stage + 1, at, ZEL_TILE);
}

#undef ZEL_TILE
#undef ZEL_TILE_PARAMETERS

ZEL_WIDE_TARGET void runTiles(Stage const* stages, int count, int tileSize) {
    Float8 const none{};
    for (int at = 0; at < count; at += tileSize)
        stages->run(stages, at, none, none, none, none, none, none, none, none);
#ifdef __x86_64__
    __builtin_ia32_vzeroupper();  // g++ leaves it out after calls that pass vectors
#endif
}

}  // namespace

Stage::Run resultStage(Aim aim) {
    return aim == Aim::kValues ? writeValues : writeDuals;
}

Stage::Run spillStage(Aim aim) {
    return aim == Aim::kValues ? spillValues : spillDuals;
}

Stage::Run viewStage() {
    return readView;
}

Stage::Run dualChildStage() {
    return readDuals;
}

void runStages(Stage const* stages, int count, Aim aim) {
    runTiles(stages, count, aim == Aim::kValues ? kTileSize : kDualTileSize);
}

}  // namespace detail
}  // namespace zel
