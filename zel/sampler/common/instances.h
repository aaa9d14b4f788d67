#pragma once

/// Expands `one(prefix, Traits, T)` for each kind of tree and type of value that samplers are
/// compiled for: `prefix` is `extern` in a header and empty in the source file of the definitions.
#define ZEL_SAMPLER_INSTANCES(one, prefix)                                                         \
    one(prefix, BinaryTraits, float);                                                              \
    one(prefix, BinaryTraits, float3);                                                             \
    one(prefix, QuinaryTraits, float);                                                             \
    one(prefix, QuinaryTraits, float3)
