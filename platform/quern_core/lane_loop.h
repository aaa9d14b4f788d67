#pragma once

#include "quern_core/simd_target.h"

// Loops over the positions of a block. Each is compiled twice, for the processor that the library
// is built for and for wider vectors, and one is chosen when it runs. Both give the same bits: no
// operation is contracted or reordered.
namespace Quern {

/// Says that no iteration of the loop that follows depends on another; and, of a loop that does
/// little, to do more at a time. clang finds out by itself: told so, it would warn of each loop
/// that calls a library function and stays as it is.
#ifdef __clang__
#define ZEL_INDEPENDENT
#define ZEL_INDEPENDENT_SHORT
#else
#define ZEL_INDEPENDENT _Pragma("GCC ivdep")
#define ZEL_INDEPENDENT_SHORT _Pragma("GCC ivdep") _Pragma("GCC unroll 4")
#endif

/// Marks the body of a loop over lanes, so that it is compiled as part of each form of the loop.
#define ZEL_LANES __attribute__((always_inline))

// The body is not passed by value: the caller would write it in parts and read it back in whole
// vectors, and wait for that. A copy of it may stay in registers, since no result overwrites it.
template <bool kShort, class Body>
__attribute__((flatten)) void loopOverLanes(int count, Body const& shared) {
    Body const body = shared;
    if constexpr (kShort) {
        ZEL_INDEPENDENT_SHORT
        for (int i = 0; i < count; ++i) body(i);
    } else {
        ZEL_INDEPENDENT
        for (int i = 0; i < count; ++i) body(i);
    }
}

template <bool kShort, class Body>
ZEL_WIDE_TARGET __attribute__((flatten)) void loopOverWideLanes(int count, Body const& shared) {
    Body const body = shared;
    if constexpr (kShort) {
        ZEL_INDEPENDENT_SHORT
        for (int i = 0; i < count; ++i) body(i);
    } else {
        ZEL_INDEPENDENT
        for (int i = 0; i < count; ++i) body(i);
    }
}

/// Calls `body(i)` for 0 to count - 1. The body keeps what it reads and writes in arrays by value,
/// and no iteration depends on another. `kShort` says that it is a few operations.
template <bool kShort = false, class Body> void forEachLane(int count, Body const& body) {
    if (wideVectors)
        loopOverWideLanes<kShort>(count, body);
    else
        loopOverLanes<kShort>(count, body);
}

}  // namespace Quern
