#pragma once

#include <cstddef>
#include <utility>

#include "zel_platform/platform_api.h"

namespace ORV::TileTree3D {

/// Keeps the memory of channels that are no longer used for other channels of any type, up to 1
/// GiB. The pool is disabled until it is enabled, and safe to use from any number of threads.
namespace ChannelMemoryPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling frees the memory in the pool.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Frees the memory in the pool.
ZEL_PLATFORM_API void clear();
/// The bytes in the pool.
ZEL_PLATFORM_API unsigned long long heldBytes();

}  // namespace ChannelMemoryPool

/// Raw memory, aligned to a cache line, with one owner. Pooled memory is taken from the pool, and
/// given back to it, if the pool is enabled at that time.
class ZEL_PLATFORM_API ChannelMemory {
public:
    ChannelMemory() noexcept = default;
    /// Allocates memory; none for 0 bytes. Throws std::bad_alloc and std::length_error.
    ChannelMemory(std::size_t bytes, bool pooled);
    ChannelMemory(ChannelMemory&& other) noexcept { swap(other); }
    ChannelMemory& operator=(ChannelMemory&& other) noexcept {
        ChannelMemory(std::move(other)).swap(*this);
        return *this;
    }
    ~ChannelMemory();

    void* data() const noexcept { return m_data; }
    /// At least the bytes requested.
    std::size_t capacity() const noexcept { return m_capacity; }

    void swap(ChannelMemory& other) noexcept {
        std::swap(m_data, other.m_data);
        std::swap(m_capacity, other.m_capacity);
        std::swap(m_pooled, other.m_pooled);
    }

private:
    void* m_data = nullptr;
    std::size_t m_capacity = 0;
    bool m_pooled = false;
};

}  // namespace ORV::TileTree3D
