#pragma once

#include <atomic>
#include <cstdint>
#include <span>

// What a thread owns in the sampler pools, so that its end can be marked there.
namespace zel::detail {

/// A slot in the list of those that one thread owns.
struct OwnedSlot {
    std::atomic<std::uint64_t>* owner = nullptr;  ///< the slot's field that names the thread
    OwnedSlot* next = nullptr;
    OwnedSlot** link = nullptr;  ///< what points to it; null while it is in no list
};

/// Set, with release order, in the owner of each slot of a thread as that thread ends. No thread's
/// name has it.
inline constexpr std::uint64_t kEnded = 1;

/// Has endings of the calling thread marked. Throws std::bad_alloc.
void watchThread();
/// Puts a slot in the list of the calling thread, which is watched. Takes a lock.
void own(OwnedSlot& slot, std::atomic<std::uint64_t>& owner) noexcept;
/// Takes slots out of the lists of their threads, which may be running, or ending just now. Takes a
/// lock.
void disown(std::span<OwnedSlot> slots) noexcept;

}  // namespace zel::detail
