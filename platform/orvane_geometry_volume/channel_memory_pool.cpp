#include "zel_platform/orvane_geometry_volume/channel_memory_pool.h"

#include <limits>
#include <memory>
#include <stdexcept>

#include "zel_platform/orvane_geometry_volume/free_list.h"
#include "zel_platform/orvane_geometry_volume/messages.h"
#include "zel_platform/quern_core/type_rep.h"

namespace ORV::TileTree3D {

namespace {

struct Deallocate {
    std::size_t bytes = 0;

    void operator()(void* storage) const noexcept {
        Quern::Internal::typeRep<std::byte>.deallocate(storage, static_cast<long long>(bytes));
    }
};
using Block = std::unique_ptr<void, Deallocate>;

/// The list is never destroyed, since a channel may outlive static objects.
Internal::FreeList<Block>& blocks() {
    constexpr unsigned long long kHeldBytes = 1ULL << 30;
    static auto& list = *new Internal::FreeList<Block>(kHeldBytes);
    return list;
}

}  // namespace

namespace ChannelMemoryPool {

bool enabled() {
    return blocks().enabled();
}
void setEnabled(bool on) {
    blocks().setEnabled(on);
}
void clear() {
    blocks().clear();
}
unsigned long long heldBytes() {
    return blocks().heldSize();
}

}  // namespace ChannelMemoryPool

ChannelMemory::ChannelMemory(std::size_t bytes, bool pooled) : m_capacity(bytes), m_pooled(pooled) {
    if (bytes > std::size_t{std::numeric_limits<long long>::max()})
        throw std::length_error(Internal::message("ChannelMemory: ", bytes, " bytes"));
    if (bytes == 0) return;
    if (pooled)
        if (auto taken = blocks().take(bytes)) {
            m_data = taken->entry.release();
            m_capacity = taken->size;
            return;
        }
    m_data = Quern::Internal::typeRep<std::byte>.allocate(static_cast<long long>(bytes));
}

ChannelMemory::~ChannelMemory() {
    Block block(m_data, {m_capacity});
    if (m_pooled && m_data) blocks().give(m_capacity, std::move(block));
}

}  // namespace ORV::TileTree3D
