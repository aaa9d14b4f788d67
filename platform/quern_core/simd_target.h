#pragma once

#include "zel_platform/platform_api.h"

#include <cstdint>
#include <vector>

// The instruction sets for which kernels are compiled. The Highway library selects one at run time,
// for the whole process.
namespace Quern {

/// An instruction set for which kernels are compiled.
struct SimdTarget {
    std::int64_t bit;
    char const* name;
};

/// The instruction sets for which this build has kernels and that this machine can run, best first.
/// The last is the baseline, which every machine can run. All give the same bits.
ZEL_PLATFORM_API std::vector<SimdTarget> simdTargets();

/// Makes all kernels in the process use this element of `simdTargets()`; the default is the first.
/// For tests and benchmarks. Must not be called while a kernel runs.
ZEL_PLATFORM_API void useSimdTarget(SimdTarget const& target);

/// Whether the selected instruction set has registers of 256 bits: selects among the forms of loops
/// that a compiler vectorises. `useSimdTarget` sets it.
extern ZEL_PLATFORM_API bool const& wideVectors;

/// Whether it has registers of 512 bits; wideVectors is true then too.
extern ZEL_PLATFORM_API bool const& widestVectors;

}  // namespace Quern

/// Marks the form of a function that is called where wideVectors is true.
#if defined(__x86_64__) && !defined(__AVX2__)
#define ZEL_WIDE_TARGET __attribute__((target("avx2")))
#else
#define ZEL_WIDE_TARGET
#endif

/// Marks the form of a function that is called where widestVectors is true.
#define ZEL_DETAIL_AVX512 "avx512f,avx512bw,avx512cd,avx512dq,avx512vl"
#if defined(__x86_64__) && defined(__clang__)
#define ZEL_WIDEST_TARGET __attribute__((target(ZEL_DETAIL_AVX512)))
#elif defined(__x86_64__)  // g++ prefers 256 bits otherwise
#define ZEL_WIDEST_TARGET __attribute__((target(ZEL_DETAIL_AVX512 ",prefer-vector-width=512")))
#else
#define ZEL_WIDEST_TARGET
#endif
