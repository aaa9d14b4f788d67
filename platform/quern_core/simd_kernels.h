#pragma once

#include <hwy/base.h>

// What a source file of kernels includes before "hwy/foreach_target.h" and "hwy/highway.h".
//
// Left out: what lies between the baseline and SSE4.2, vectors without a fixed size, and the
// AVX-512 extensions of later machines, which no kernel here needs.
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SVE | HWY_SVE_256 | HWY_SVE2 | HWY_SVE2_128)
