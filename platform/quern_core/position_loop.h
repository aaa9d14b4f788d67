#pragma once

#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/simd_target.h"

// Loops over the positions of a block. Each loop is compiled three times, for the target processor
// of the build and for registers of 256 and of 512 bits, and chosen at run time. All give the same
// bits, since no operation is contracted or reordered.

// A loop that calls a library function is not vectorised. clang warns of that at the function into
// which the body was inlined: in this header, since the loops themselves are not inlined.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wpass-failed"
#endif

namespace Quern {

/// AVX-512 has fused multiply-adds, by which a compiler may contract operations unless it is told
/// not to. Loops of nodes that are compiled outside of ZEL, maybe without -ffp-contract=off, do not
/// use it.
#ifdef ZEL_CONTRACTS_NOTHING
inline constexpr bool kUsesWidest = true;
#else
inline constexpr bool kUsesWidest = false;
#endif

/// ZEL_INDEPENDENT tells the compiler that no iteration of the following loop depends on another;
/// ZEL_INDEPENDENT_SHORT also asks it to unroll a loop of few operations.
#ifdef __clang__
#define ZEL_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#define ZEL_INDEPENDENT_SHORT ZEL_INDEPENDENT
#define ZEL_CLANG_NOINLINE __attribute__((noinline))
#else
#define ZEL_INDEPENDENT _Pragma("GCC ivdep")
#define ZEL_INDEPENDENT_SHORT _Pragma("GCC ivdep") _Pragma("GCC unroll 4")
#define ZEL_CLANG_NOINLINE
#endif

// The body is passed by reference: passed by value, it would be stored member by member and loaded
// again by whole registers, which stalls. The local copy can stay in registers, since no result can
// overwrite it.
template <bool kShort, class Body, class... Read>
ZEL_CLANG_NOINLINE __attribute__((flatten)) void loopOverPositions(int count, Body const& shared,
                                                                   Read const& __restrict... read) {
    Body const body = shared;
    if constexpr (kShort) {
        ZEL_INDEPENDENT_SHORT
        for (int i = 0; i < count; ++i) body(i, read...);
    } else {
        ZEL_INDEPENDENT
        for (int i = 0; i < count; ++i) body(i, read...);
    }
}

template <bool kShort, class Body, class... Read>
ZEL_CLANG_NOINLINE ZEL_WIDE_TARGET __attribute__((flatten)) void
loopOverPositionsWide(int count, Body const& shared, Read const& __restrict... read) {
    Body const body = shared;
    if constexpr (kShort) {
        ZEL_INDEPENDENT_SHORT
        for (int i = 0; i < count; ++i) body(i, read...);
    } else {
        ZEL_INDEPENDENT
        for (int i = 0; i < count; ++i) body(i, read...);
    }
}

template <bool kShort, class Body, class... Read>
ZEL_CLANG_NOINLINE ZEL_WIDEST_TARGET __attribute__((flatten)) void
loopOverPositionsWidest(int count, Body const& shared, Read const& __restrict... read) {
    Body const body = shared;
    if constexpr (kShort) {
        ZEL_INDEPENDENT_SHORT
        for (int i = 0; i < count; ++i) body(i, read...);
    } else {
        ZEL_INDEPENDENT
        for (int i = 0; i < count; ++i) body(i, read...);
    }
}

/// Calls `body(i, read...)` for each i from 0 to count - 1. The body must be a lambda marked
/// ZEL_ALWAYS_INLINE, so that it is compiled as part of each form of the loop. It captures its
/// parameters, and pointers to the arrays that it reads and writes, by value; no iteration may
/// depend on another. Parameters that are costly to copy are passed as `read`. The loop must not
/// modify them, so that the compiler may load them once and not again after each result. `kShort`
/// marks a body of few operations.
template <bool kShort = false, class Body, class... Read>
void forEachPosition(int count, Body const& body, Read const&... read) {
    constexpr int kWorthWidest = 32;  // fewer leave too much to the loop's scalar end
    if (kUsesWidest && widestVectors && count >= kWorthWidest)
        loopOverPositionsWidest<kShort, Body, Read...>(count, body, read...);
    else if (wideVectors)
        loopOverPositionsWide<kShort, Body, Read...>(count, body, read...);
    else
        loopOverPositions<kShort, Body, Read...>(count, body, read...);
}

}  // namespace Quern

#ifdef __clang__
#pragma clang diagnostic pop
#endif
