#include "quern_core/type_rep.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

namespace Quern::Internal {

namespace {
// Whole cache lines, so that two arrays written by two threads never share one.
constexpr std::size_t kCacheLine = 64;
}  // namespace

void* UntypedTypeRep::allocate(long long count) const {
    constexpr auto kMostBytes =
        static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    if (count < 0 || static_cast<std::size_t>(count) > kMostBytes / size)
        throw std::length_error("Quern::Array: no storage for " + std::to_string(count) +
                                " elements of " + std::to_string(size) + " bytes");
    if (count == 0) return nullptr;
    return ::operator new(static_cast<std::size_t>(count) * size,
                          std::align_val_t(std::max(alignment, kCacheLine)));
}

void UntypedTypeRep::deallocate(void* storage) const noexcept {
    ::operator delete(storage, std::align_val_t(std::max(alignment, kCacheLine)));
}

}  // namespace Quern::Internal
