#include "zel_platform/quern_core/type_rep.h"

#include <algorithm>
#include <cstdint>
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

/// Asks the system for large pages behind large storage: random reads then miss the cache, but
/// rarely the page tables. Has no effect on systems without large pages.
void askForLargePages([[maybe_unused]] void* storage, [[maybe_unused]] std::size_t size) {
#ifdef MADV_HUGEPAGE
    constexpr std::size_t kLarge = std::size_t{4} << 20, kPage = 4096;
    if (size < kLarge) return;
    std::size_t const skipped = (kPage - reinterpret_cast<std::uintptr_t>(storage) % kPage) % kPage;
    // madvise is a hint; failure is harmless.
    madvise(static_cast<std::byte*>(storage) + skipped, (size - skipped) / kPage * kPage,
            MADV_HUGEPAGE);
#endif
}

}  // namespace

void* UntypedTypeRep::allocate(long long count) const {
    constexpr auto kMostBytes =
        static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max());
    if (count < 0 || static_cast<std::size_t>(count) > kMostBytes / size)
        throw std::length_error("Quern::Array: no storage for " + std::to_string(count) +
                                " elements of " + std::to_string(size) + " bytes");
    if (count == 0) return nullptr;
    std::size_t const bytes = static_cast<std::size_t>(count) * size;
    void* const storage = ::operator new(bytes, std::align_val_t(std::max(alignment, kCacheLine)));
    askForLargePages(storage, bytes);
    return storage;
}

void UntypedTypeRep::deallocate(void* storage) const noexcept {
    ::operator delete(storage, std::align_val_t(std::max(alignment, kCacheLine)));
}

}  // namespace Quern::Internal
