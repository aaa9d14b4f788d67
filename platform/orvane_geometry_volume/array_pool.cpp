#include "zel_platform/orvane_geometry_volume/array_pool.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "zel_platform/orvane_geometry_volume/free_list.h"
#include "zel_platform/orvane_geometry_volume/messages.h"

namespace ORV::TileTree3D::ArrayPool {

namespace {

using Orvane::Math::float3;
using Quern::Array;

/// The limit of the pool for each element type.
constexpr unsigned long long kHeldBytes = 1ULL << 30;

/// The list is never destroyed, since an array may outlive static objects.
template <class T> Internal::FreeList<Array<T>>& arrays() {
    static auto& list = *new Internal::FreeList<Array<T>>(kHeldBytes / sizeof(T));
    return list;
}

/// An array whose destructor gives its storage to the pool.
template <class T> class PooledArray : public Array<T> {
public:
    explicit PooledArray(Array<T>&& array) noexcept : Array<T>(std::move(array)) {}
    PooledArray(PooledArray const&) = default;
    ~PooledArray() {
        auto const capacity = static_cast<unsigned long long>(this->capacity());
        if (capacity > 0) arrays<T>().give(capacity, std::move(*this));
    }
};

}  // namespace

bool enabled() {
    return arrays<float>().enabled();
}
void setEnabled(bool on) {
    arrays<float>().setEnabled(on);
    arrays<float3>().setEnabled(on);
}
void clear() {
    arrays<float>().clear();
    arrays<float3>().clear();
}
unsigned long long heldBytes() {
    return arrays<float>().heldSize() * sizeof(float) +
           arrays<float3>().heldSize() * sizeof(float3);
}

template <class T> Quern::Ptr<Array<T>> allocateForOverwrite(unsigned long long count) {
    if (count > static_cast<unsigned long long>(std::numeric_limits<long long>::max()))
        throw std::length_error(Internal::message("ArrayPool::allocate: ", count, " elements"));
    auto const size = static_cast<long long>(count);
    if (!enabled()) return Quern::makePtr<Array<T>>(Array<T>::forOverwrite(size));
    auto taken = arrays<T>().take(count);
    if (!taken) return Quern::makePtr<PooledArray<T>>(Array<T>::forOverwrite(size));
    taken->entry.resize(size);
    return Quern::makePtr<PooledArray<T>>(std::move(taken->entry));
}

template <class T> Quern::Ptr<Array<T>> allocate(T value, unsigned long long count) {
    auto array = allocateForOverwrite<T>(count);
    std::fill(array->begin(), array->end(), value);
    return array;
}

template ZEL_PLATFORM_API Quern::Ptr<Array<float>> allocate(float, unsigned long long);
template ZEL_PLATFORM_API Quern::Ptr<Array<float3>> allocate(float3, unsigned long long);
template ZEL_PLATFORM_API Quern::Ptr<Array<float>> allocateForOverwrite(unsigned long long);
template ZEL_PLATFORM_API Quern::Ptr<Array<float3>> allocateForOverwrite(unsigned long long);

}  // namespace ORV::TileTree3D::ArrayPool
