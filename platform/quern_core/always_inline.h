#pragma once

/// Marks a function, or a lambda (after its parameters), that must be inlined into every caller:
/// kernels, and bodies of loops that are compiled for two register widths.
#define ZEL_ALWAYS_INLINE __attribute__((always_inline))
