#include "zel/batch/fusion/tile_stages.h"

#include "zel/batch/columns.h"
#include "zel/batch/fusion/stage_forms.h"

namespace zel {

namespace detail {

namespace {

// Each vector is copied by itself: an array of them would make the compiler store the registers
// first.

/// Writes the tile as four rows of two vectors, `step` floats apart.
template <class Width>
ZEL_ALWAYS_INLINE inline void writeRows(float* to, std::ptrdiff_t step, Tile<Width> const& tile) {
    constexpr std::size_t kBytes = sizeof(typename Width::Vector);
    constexpr std::ptrdiff_t kFloats = kBytes / sizeof(float);
    __builtin_memcpy(to, &tile.v0, kBytes);
    __builtin_memcpy(to + kFloats, &tile.v1, kBytes);
    __builtin_memcpy(to + step, &tile.v2, kBytes);
    __builtin_memcpy(to + step + kFloats, &tile.v3, kBytes);
    __builtin_memcpy(to + 2 * step, &tile.v4, kBytes);
    __builtin_memcpy(to + 2 * step + kFloats, &tile.v5, kBytes);
    __builtin_memcpy(to + 3 * step, &tile.v6, kBytes);
    __builtin_memcpy(to + 3 * step + kFloats, &tile.v7, kBytes);
}

/// Sets two vectors to the floats at `from`.
template <class Vector>
ZEL_ALWAYS_INLINE inline void readRow(float const* from, Vector& a, Vector& b) {
    __builtin_memcpy(&a, from, sizeof a);
    __builtin_memcpy(&b, from + sizeof a / sizeof(float), sizeof b);
}

struct WriteValues : StageWork {
    static constexpr bool kIsLast = true;
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at, Tile<Width> tile) {
        writeRows(stage.out + at, Width::kTileSize / 4, tile);
    }
};

struct WriteDuals : StageWork {
    static constexpr bool kIsLast = true;
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at, Tile<Width> tile) {
        writeRows(stage.out + at, kBlockSize, tile);
    }
};

// A formula of values finds a spilled tile as it finds any array of the block, at `at`. A formula
// of duals reads its tiles from their beginning.

struct SpillValues : StageWork {
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at, Tile<Width> tile) {
        writeRows(stage.out + at, Width::kTileSize / 4, tile);
    }
};

struct SpillDuals : StageWork {
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t /*at*/, Tile<Width> tile) {
        writeRows(stage.out, Width::kTileSize / 4, tile);
    }
};

struct ReadView {
    template <int kSize>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at,
                                      float (&__restrict tile)[kSize]) {
        constexpr int kDuals = kSize / 4;
        float const *const values = stage.in[0] + at, *const gradient = stage.in[1];
        for (int i = 0; i < kDuals; ++i) {
            tile[i] = values[i];
            for (int c = 0; c < 3; ++c) tile[(c + 1) * kDuals + i] = gradient[c];
        }
    }
};

struct ReadDuals : StageWork {
    template <class Width>
    ZEL_ALWAYS_INLINE static void run(Stage const& stage, std::ptrdiff_t at, Tile<Width> tile) {
        readRow(stage.in[0] + at, tile.v0, tile.v1);
        readRow(stage.in[1] + at, tile.v2, tile.v3);
        readRow(stage.in[2] + at, tile.v4, tile.v5);
        readRow(stage.in[3] + at, tile.v6, tile.v7);
    }
};

ZEL_WIDE_TARGET void runAvx2Tiles(Stage const* stages, int count, int tileSize) {
#ifdef __clang__
    Float8 tile[8]{};
    for (int at = 0; at < count; at += tileSize) stages->run.avx2(stages, at, tile);
#else
    Float8 const none{};
    for (int at = 0; at < count; at += tileSize)
        stages->run.avx2(stages, at, none, none, none, none, none, none, none, none);
#endif
#ifdef __x86_64__
    __builtin_ia32_vzeroupper();  // g++ leaves it out after calls that pass vectors
#endif
}

ZEL_WIDEST_TARGET void runAvx512Tiles(Stage const* stages, int count, int tileSize) {
#ifdef __clang__
    Float16 tile[8]{};
    for (int at = 0; at < count; at += tileSize) stages->run.avx512(stages, at, tile);
#else
    Float16 const none{};
    for (int at = 0; at < count; at += tileSize)
        stages->run.avx512(stages, at, none, none, none, none, none, none, none, none);
#endif
#ifdef __x86_64__
    __builtin_ia32_vzeroupper();
#endif
}

template <class Width> constexpr int tileSize(Aim aim) {
    return aim == Aim::kValues ? Width::kTileSize : Width::kDualTileSize;
}

/// Whether `count` positions are worth wider tiles: those have more positions to spare.
bool usesAvx512(int count, Aim aim) {
    return Quern::widestVectors && count > tileSize<Avx2>(aim);
}

}  // namespace

StageForms resultStage(Aim aim) {
    return aim == Aim::kValues ? kStageForms<WriteValues> : kStageForms<WriteDuals>;
}

StageForms spillStage(Aim aim) {
    return aim == Aim::kValues ? kStageForms<SpillValues> : kStageForms<SpillDuals>;
}

StageForms viewStage() {
    return kStageForms<LoopStage<ReadView>>;
}

StageForms dualChildStage() {
    return kStageForms<ReadDuals>;
}

void runStages(Stage const* stages, int count, Aim aim) {
    if (usesAvx512(count, aim))
        runAvx512Tiles(stages, count, tileSize<Avx512>(aim));
    else
        runAvx2Tiles(stages, count, tileSize<Avx2>(aim));
}

bool endsWithTile(int count) {
    bool const wide = usesAvx512(count, Aim::kValues);
    return count % (wide ? Avx512::kTileSize : Avx2::kTileSize) == 0;
}

}  // namespace detail
}  // namespace zel
