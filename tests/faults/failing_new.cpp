#include "faults/failing_new.h"

#include <link.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr long long kNone = std::numeric_limits<long long>::max();

constinit std::atomic<long long> live = 0;
constinit std::atomic<long long> left = kNone;  // allocations that succeed before one fails
constinit std::atomic<bool> failsAll = false, came = false, thrown = false;

/// The addresses of a library's code.
struct Code {
    char const* name;
    std::uintptr_t begin = 0, end = 0;
    explicit Code(char const* itsName) : name(itsName) {
        dl_iterate_phdr(
            [](dl_phdr_info* library, std::size_t, void* self) {
                auto& found = *static_cast<Code*>(self);
                if (!std::strstr(library->dlpi_name, found.name)) return 0;
                for (int i = 0; i < library->dlpi_phnum; ++i) {
                    ElfW(Phdr) const& part = library->dlpi_phdr[i];
                    if (part.p_type != PT_LOAD || !(part.p_flags & PF_X)) continue;
                    found.begin = library->dlpi_addr + part.p_vaddr;
                    found.end = found.begin + part.p_memsz;
                }
                return 1;
            },
            this);
    }
    bool has(void const* place) const {
        auto const address = reinterpret_cast<std::uintptr_t>(place);
        return begin <= address && address < end;
    }
};

bool fails(void const* caller) {
    if (!failsAll && left == kNone) return false;
    static Code const scheduler("libtbb.so"), openVdb("libopenvdb.so");
    if (scheduler.has(caller) || openVdb.has(caller)) return false;
    return failsAll || left.fetch_sub(1) == 0;
}

void* allocate(std::size_t size, std::size_t alignment, void const* caller, bool throws) {
    if (fails(caller)) {
        came = true;
        if (!throws) return nullptr;
        thrown = true;
        throw std::bad_alloc();
    }
    std::size_t const whole = size / alignment * alignment + alignment;
    void* const block = whole < size ? nullptr : std::aligned_alloc(alignment, whole);
    if (block)
        ++live;
    else if (throws)
        throw std::bad_alloc();
    return block;
}

void release(void* block) {
    if (block) --live;
    std::free(block);
}

}  // namespace

namespace faults {

long long liveBlocks() {
    return live;
}
void failAfter(long long count) {
    left = count;
}
void failAll() {
    failsAll = true;
}
Failure endFailures() {
    left = kNone;
    failsAll = false;
    return {came.exchange(false), thrown.exchange(false)};
}

}  // namespace faults

// Not inlined, so that the caller is the code that has the `new`.
#define ZEL_FAULTS_NEW(name)                                                                       \
    [[gnu::noinline]] void* name(std::size_t size) {                                               \
        return allocate(size, alignof(std::max_align_t), __builtin_return_address(0), true);       \
    }                                                                                              \
    [[gnu::noinline]] void* name(std::size_t size, std::align_val_t alignment) {                   \
        return allocate(size, static_cast<std::size_t>(alignment), __builtin_return_address(0),    \
                        true);                                                                     \
    }                                                                                              \
    [[gnu::noinline]] void* name(std::size_t size, std::nothrow_t const&) noexcept {               \
        return allocate(size, alignof(std::max_align_t), __builtin_return_address(0), false);      \
    }                                                                                              \
    [[gnu::noinline]] void* name(std::size_t size, std::align_val_t alignment,                     \
                                 std::nothrow_t const&) noexcept {                                 \
        return allocate(size, static_cast<std::size_t>(alignment), __builtin_return_address(0),    \
                        false);                                                                    \
    }
ZEL_FAULTS_NEW(operator new)
ZEL_FAULTS_NEW(operator new[])

#define ZEL_FAULTS_DELETE(...)                                                                     \
    void operator delete(void* block, ##__VA_ARGS__) noexcept {                                    \
        release(block);                                                                            \
    }                                                                                              \
    void operator delete[](void* block, ##__VA_ARGS__) noexcept {                                  \
        release(block);                                                                            \
    }
ZEL_FAULTS_DELETE()
ZEL_FAULTS_DELETE(std::size_t)
ZEL_FAULTS_DELETE(std::align_val_t)
ZEL_FAULTS_DELETE(std::size_t, std::align_val_t)
ZEL_FAULTS_DELETE(std::nothrow_t const&)
ZEL_FAULTS_DELETE(std::align_val_t, std::nothrow_t const&)
