#pragma once

/// Marks a function, or a lambda after its parameters, that is part of every caller, whatever the
/// compiler would decide: kernels, and bodies of loops that are compiled for two widths of vectors.
#define ZEL_ALWAYS_INLINE __attribute__((always_inline))
