#pragma once

#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

/// Keeps the storage of arrays that are no longer used for later arrays, up to 1 GiB for each
/// element type. The pool is disabled until it is enabled, and safe to use from any number of
/// threads.
namespace ORV::TileTree3D::ArrayPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling frees the storage in the pool.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Frees the storage in the pool.
ZEL_PLATFORM_API void clear();
/// The bytes in the pool.
ZEL_PLATFORM_API unsigned long long heldBytes();

/// Returns an array of `count` elements equal to `value`, where T is float or float3. When its last
/// pointer is released, the storage goes back to the pool. While the pool is disabled, the array is
/// an ordinary one. Throws std::length_error for a count that cannot be addressed.
template <class T> Quern::Ptr<Quern::Array<T>> allocate(T value, unsigned long long count);

/// The same, but the elements have no certain value.
template <class T> Quern::Ptr<Quern::Array<T>> allocateForOverwrite(unsigned long long count);

extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<float>> allocate(float,
                                                                          unsigned long long);
extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<Orvane::Math::float3>>
allocate(Orvane::Math::float3, unsigned long long);
extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<float>>
allocateForOverwrite(unsigned long long);
extern template ZEL_PLATFORM_API Quern::Ptr<Quern::Array<Orvane::Math::float3>>
allocateForOverwrite(unsigned long long);

}  // namespace ORV::TileTree3D::ArrayPool
