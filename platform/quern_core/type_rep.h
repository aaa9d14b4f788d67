#pragma once

#include <cstddef>

#include "zel_platform/platform_api.h"

namespace Quern::Internal {

/// The size and alignment of an element type. Allocates and frees storage for its elements.
class ZEL_PLATFORM_API UntypedTypeRep {
public:
    constexpr UntypedTypeRep(std::size_t elementSize, std::size_t elementAlignment) noexcept
        : size(elementSize), alignment(elementAlignment) {}

    /// Allocates raw storage for `count` elements, aligned to a cache line or, if that is larger,
    /// to the type's own alignment; null for 0 elements. From a megabyte on it consists of large
    /// pages where the system has them. Throws std::length_error if `count` is negative or the
    /// bytes cannot be addressed, and std::bad_alloc.
    void* allocate(long long count) const;

    /// Frees storage from `allocate` for as many elements; null is allowed.
    void deallocate(void* storage, long long count) const noexcept;

    std::size_t elementSize() const noexcept { return size; }

private:
    std::size_t size;
    std::size_t alignment;
};

template <class T> inline constexpr UntypedTypeRep typeRep{sizeof(T), alignof(T)};

}  // namespace Quern::Internal
