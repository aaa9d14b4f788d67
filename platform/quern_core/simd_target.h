#pragma once

#include "zel_platform/platform_api.h"

#include <cstdint>
#include <vector>

// Kernels are compiled once for every instruction set below and chosen at run time, for the whole
// process, by the Highway library. A source file that holds kernels includes this header, then
// "hwy/foreach_target.h" and "hwy/highway.h".
//
// Left out: what lies between the baseline and SSE4.2, vectors without a fixed size, and the
// AVX-512 extensions of later machines, which no kernel here needs.
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SVE | HWY_SVE_256 | HWY_SVE2 | HWY_SVE2_128)

namespace Quern {

/// An instruction set that kernels are compiled for.
struct SimdTarget {
    std::int64_t bit;
    char const* name;
};

/// The instruction sets that this build has kernels for and this machine can run, best first. The
/// last is the baseline, which every machine can run. Every one gives the same bits.
ZEL_PLATFORM_API std::vector<SimdTarget> simdTargets();

/// From now on, in the whole process, kernels run with this element of `simdTargets()`. For tests
/// and benchmarks; not while a kernel runs. The default is the first element.
ZEL_PLATFORM_API void useSimdTarget(SimdTarget const& target);

/// Whether the processor has vectors of 256 bits, AVX2, and the chosen instruction set uses them:
/// for loops that a compiler makes into vector code of two widths.
extern ZEL_PLATFORM_API bool wideVectors;

}  // namespace Quern

/// Marks the form of such a function that is called where there are wide vectors.
#if defined(__x86_64__) && !defined(__AVX2__)
#define ZEL_WIDE_TARGET __attribute__((target("avx2")))
#else
#define ZEL_WIDE_TARGET
#endif
