#pragma once

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

/// Keeps the storage of arrays for later arrays, up to 1 GiB for each element type. Disabled until
/// enabled; safe to use from any number of threads.
namespace ORV::TileTree3D::ArrayPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling gives back what the pool holds.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Gives back to the system what the pool holds.
ZEL_PLATFORM_API void clear();
/// The bytes that the pool holds for later use.
ZEL_PLATFORM_API unsigned long long heldBytes();

/// An array of `count` times `value`, for T of float and float3. Its storage goes back to the pool
/// with the last pointer to it; while the pool is disabled it is an array like any other. Throws
/// std::length_error for a count that cannot be addressed.
template <class T> Quern::Ptr<Quern::Array<T>> allocate(T value, unsigned long long count);

extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<float>> allocate(float,
                                                                          unsigned long long);
extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<Orvane::Math::float3>>
allocate(Orvane::Math::float3, unsigned long long);

}  // namespace ORV::TileTree3D::ArrayPool
