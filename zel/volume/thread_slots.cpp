#include "zel/volume/thread_slots.h"

#include <pthread.h>

#include <cerrno>
#include <mutex>
#include <new>

namespace zel::detail {

namespace {

/// Guards the lists of all threads.
constinit std::mutex mutex;

/// Whether the ends of threads are no longer marked, since the program ends or the library is
/// unloaded. The lists may then contain threads that are gone, and must not be read.
constinit std::atomic<bool> isOver = false;

thread_local constinit OwnedSlot* ownSlots = nullptr;

void unlink(OwnedSlot& slot) noexcept {
    *slot.link = slot.next;
    if (slot.next) slot.next->link = slot.link;
    slot.link = nullptr;
}

void endThread(void* list) noexcept {
    auto& first = *static_cast<OwnedSlot**>(list);
    std::scoped_lock const lock(mutex);
    while (first && !isOver) {
        first->owner->fetch_or(kEnded, std::memory_order_release);
        unlink(*first);
    }
}

/// Calls endThread() as a thread ends. A thread_local object with a destructor would do so too, but
/// keep the library loaded for as long as any thread lives that has sampled.
class ThreadEnd {
public:
    ThreadEnd() {
        if (pthread_key_create(&m_key, [](void* list) { endThread(list); }) != 0)
            throw std::bad_alloc();
    }
    ThreadEnd(ThreadEnd const&) = delete;
    ThreadEnd& operator=(ThreadEnd const&) = delete;
    ~ThreadEnd() {
        std::scoped_lock const lock(mutex);
        isOver = true;
        pthread_key_delete(m_key);
    }

    void watch() const {
        if (!isOver && pthread_setspecific(m_key, &ownSlots) == ENOMEM) throw std::bad_alloc();
    }

private:
    pthread_key_t m_key{};
};

}  // namespace

void watchThread() {
    static ThreadEnd const end;
    end.watch();
}

void own(OwnedSlot& slot, std::atomic<std::uint64_t>& owner) noexcept {
    std::scoped_lock const lock(mutex);
    if (isOver) return;
    slot = {&owner, ownSlots, &ownSlots};
    if (ownSlots) ownSlots->link = &slot.next;
    ownSlots = &slot;
}

void disown(std::span<OwnedSlot> slots) noexcept {
    std::scoped_lock const lock(mutex);
    for (OwnedSlot& slot : slots)
        if (slot.link && !isOver) unlink(slot);
}

}  // namespace zel::detail
