#include "zel_platform/quern_core/type_rep.h"

#include <algorithm>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#ifdef __linux__
#include <sys/mman.h>
#endif

namespace Quern::Internal {

namespace {

// Storage begins with a cache line, so that arrays written by different threads share none.
constexpr std::size_t kCacheLine = 64;

/// The system clears memory when it is first written: a large page in a fraction of the time that
/// its 512 small ones take. Random reads then miss the cache, but rarely the page tables.
constexpr std::size_t kLargePage = std::size_t{2} << 20;

/// How storage is allocated.
struct Placement {
    std::size_t bytes;
    std::size_t alignment;
    std::size_t inLargePages;  ///< bytes from the beginning
};

Placement placementOf(std::size_t bytes, std::size_t alignment) {
    // The end of the storage is in a large page if it fills at least a half of that.
    std::size_t const inLargePages = (bytes + kLargePage / 2) / kLargePage * kLargePage;
    alignment = std::max(alignment, inLargePages > 0 ? kLargePage : kCacheLine);
    return {std::max(bytes, inLargePages), alignment, inLargePages};
}

}  // namespace

void* UntypedTypeRep::allocate(long long count) const {
    constexpr auto kMostBytes =
        static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    if (count < 0 || static_cast<std::size_t>(count) > kMostBytes / size)
        throw std::length_error("Quern::Array: no storage for " + std::to_string(count) +
                                " elements of " + std::to_string(size) + " bytes");
    if (count == 0) return nullptr;
    Placement const placement = placementOf(static_cast<std::size_t>(count) * size, alignment);
    void* const storage = ::operator new(placement.bytes, std::align_val_t(placement.alignment));
#ifdef MADV_HUGEPAGE
    // A hint, whose failure is harmless.
    if (placement.inLargePages > 0) madvise(storage, placement.inLargePages, MADV_HUGEPAGE);
#endif
    return storage;
}

void UntypedTypeRep::deallocate(void* storage, long long count) const noexcept {
    if (!storage) return;
    Placement const placement = placementOf(static_cast<std::size_t>(count) * size, alignment);
    ::operator delete(storage, std::align_val_t(placement.alignment));
}

}  // namespace Quern::Internal
