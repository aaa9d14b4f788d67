#pragma once

#include <hwy/base.h>

// The instruction sets for which kernels are compiled. A source file of kernels includes this
// header before "hwy/foreach_target.h" and "hwy/highway.h".
//
// Disabled are targets that no kernel needs: those between the baseline and SSE4.2, and registers
// without a fixed size.
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SVE | HWY_SVE_256 | HWY_SVE2 | HWY_SVE2_128)
