#pragma once

#include <atomic>
#include <cstdint>
#include <span>

// The slots of sampler pools that each thread owns, so that its end can be marked there.
namespace zel::detail {

/// A slot in the list of slots that one thread owns.
struct OwnedSlot {
    std::atomic<std::uint64_t>* owner = nullptr;  ///< the slot's field that names the thread
    OwnedSlot* next = nullptr;
    OwnedSlot** link = nullptr;  ///< the pointer to this slot; null while it is in no list
};

/// The bit that is set, with release order, in the owner of each slot of a thread as that thread
/// ends. No identity of a thread has it.
inline constexpr std::uint64_t kEnded = 1;

/// Registers the calling thread, so that its slots are marked when the thread ends. Throws
/// std::bad_alloc.
void watchThread();
/// Puts a slot in the list of the calling thread, which is watched. Takes a lock.
void own(OwnedSlot& slot, std::atomic<std::uint64_t>& owner) noexcept;
/// Takes slots out of the lists of their threads, which may be running, or ending just now. Takes a
/// lock.
void disown(std::span<OwnedSlot> slots) noexcept;

}  // namespace zel::detail
