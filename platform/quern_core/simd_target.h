#pragma once

#include "zel_platform/platform_api.h"

#include <cstdint>
#include <vector>

// The instruction sets that kernels are compiled for. One is chosen at run time, for the whole
// process, by the Highway library.
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
/// for loops that a compiler makes into vector code of two widths. `useSimdTarget` sets it.
extern ZEL_PLATFORM_API bool const& wideVectors;

}  // namespace Quern

/// Marks the form of such a function that is called where there are wide vectors.
#if defined(__x86_64__) && !defined(__AVX2__)
#define ZEL_WIDE_TARGET __attribute__((target("avx2")))
#else
#define ZEL_WIDE_TARGET
#endif
