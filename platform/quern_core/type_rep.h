#pragma once

#include <cstddef>

#include "zel_platform/platform_api.h"

namespace Quern::Internal {

/// The storage needs of an element type, and where storage for elements comes from and goes to.
class ZEL_PLATFORM_API UntypedTypeRep {
public:
    constexpr UntypedTypeRep(std::size_t elementSize, std::size_t elementAlignment) noexcept
        : size(elementSize), alignment(elementAlignment) {}

    /// Raw storage for `count` elements, aligned to a cache line or to the type's own need if that
    /// is larger; null for 0 elements. Throws std::length_error if `count` is negative or the bytes
    /// cannot be addressed, and std::bad_alloc.
    void* allocate(long long count) const;

    /// Gives back what `allocate` gave; null is allowed.
    void deallocate(void* storage) const noexcept;

    std::size_t elementSize() const noexcept { return size; }

private:
    std::size_t size;
    std::size_t alignment;
};

template <class T> inline constexpr UntypedTypeRep typeRep{sizeof(T), alignof(T)};

}  // namespace Quern::Internal
