#pragma once

#include <cstddef>
#include <utility>

#include "zel_platform/platform_api.h"

namespace ORV::TileTree3D {

/// Keeps the memory of channels for other channels of whatever type, up to 1 GiB. Disabled until
/// enabled; safe to use from any number of threads.
namespace ChannelMemoryPool {

ZEL_PLATFORM_API bool enabled();
/// Disabling gives back what the pool holds.
ZEL_PLATFORM_API void setEnabled(bool on);
/// Gives back to the system what the pool holds.
ZEL_PLATFORM_API void clear();
/// The bytes that the pool holds for later use.
ZEL_PLATFORM_API unsigned long long heldBytes();

}  // namespace ChannelMemoryPool

/// A block of raw memory, aligned to a cache line, with one owner. A pooled block comes from the
/// pool and goes back to it, whenever that is enabled.
class ZEL_PLATFORM_API ChannelMemory {
public:
    ChannelMemory() noexcept = default;
    /// No memory for 0 bytes. Throws std::bad_alloc and std::length_error.
    ChannelMemory(std::size_t bytes, bool pooled);
    ChannelMemory(ChannelMemory&& other) noexcept { swap(other); }
    ChannelMemory& operator=(ChannelMemory&& other) noexcept {
        ChannelMemory(std::move(other)).swap(*this);
        return *this;
    }
    ~ChannelMemory();

    void* data() const noexcept { return m_data; }
    /// At least the bytes asked for.
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
