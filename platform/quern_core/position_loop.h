#pragma once

#include "zel_platform/quern_core/always_inline.h"
#include "zel_platform/quern_core/simd_target.h"

// Loops over the positions of a block. Each is compiled twice, for the processor that the library
// is built for and for wider vectors, and one is chosen when it runs. Both give the same bits: no
// operation is contracted or reordered.

// A loop that calls a library function stays as it is. clang warns of it, at the function that it
// has become part of: here, since no form of the loop is inlined.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wpass-failed"
#endif

namespace Quern {

/// Says that no iteration of the loop that follows depends on another; and, of a loop that does
/// little, to do more at a time.
#ifdef __clang__
#define ZEL_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#define ZEL_INDEPENDENT_SHORT ZEL_INDEPENDENT
#define ZEL_CLANG_NOINLINE __attribute__((noinline))
#else
#define ZEL_INDEPENDENT _Pragma("GCC ivdep")
#define ZEL_INDEPENDENT_SHORT _Pragma("GCC ivdep") _Pragma("GCC unroll 4")
#define ZEL_CLANG_NOINLINE
#endif

// The body is not passed by value: the caller would write it in parts and read it back in whole
// vectors, and wait for that. A copy of it may stay in registers, since no result overwrites it.
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

/// Calls `body(i, read...)` for 0 to count - 1. The body is a lambda marked ZEL_ALWAYS_INLINE, so
/// that it is compiled as part of each form of the loop. It keeps pointers to the arrays that it
/// reads and writes, and its parameters, by value, and no iteration depends on another. Parameters
/// that are best not copied are handed to it as `read`: no result overwrites them, and nothing else
/// that the loop does but through `read` itself, so that they are loaded once, and not again after
/// each result. `kShort` says that it is a few operations.
template <bool kShort = false, class Body, class... Read>
void forEachPosition(int count, Body const& body, Read const&... read) {
    if (wideVectors)
        loopOverPositionsWide<kShort, Body, Read...>(count, body, read...);
    else
        loopOverPositions<kShort, Body, Read...>(count, body, read...);
}

}  // namespace Quern

#ifdef __clang__
#pragma clang diagnostic pop
#endif
