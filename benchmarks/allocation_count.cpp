#include "allocation_count.h"

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

// Costs two plain loads and a branch when nothing is counted, too little to affect timings.
std::atomic<bool> counting{false};
std::atomic<std::size_t> countedBlocks{0};
std::atomic<std::size_t> countedBytes{0};

void* counted(void* block, std::size_t size) {
    if (!block) throw std::bad_alloc();
    if (counting.load(std::memory_order_relaxed)) {
        countedBlocks.fetch_add(1, std::memory_order_relaxed);
        countedBytes.fetch_add(size, std::memory_order_relaxed);
    }
    return block;
}

}  // namespace

AllocationCount::AllocationCount() {
    countedBlocks = 0;
    countedBytes = 0;
    counting = true;
}

AllocationCount::~AllocationCount() {
    counting = false;
}

std::size_t AllocationCount::blocks() const {
    return countedBlocks;
}

std::size_t AllocationCount::bytes() const {
    return countedBytes;
}

// The array and the nothrow forms in the standard library call these operators.

void* operator new(std::size_t size) {
    return counted(std::malloc(size > 0 ? size : 1), size);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
    auto const unit = static_cast<std::size_t>(alignment);
    std::size_t const whole = (size + unit - 1) / unit * unit;
    return counted(whole < size ? nullptr : std::aligned_alloc(unit, whole > 0 ? whole : unit),
                   size);
}

void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}
