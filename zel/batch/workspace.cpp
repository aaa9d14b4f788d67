#include "zel/batch/workspace.h"

#include <pthread.h>

#include <algorithm>
#include <bit>
#include <stdexcept>

#include "zel/batch/thread_object.h"

namespace zel::detail {

Workspace& Workspace::local() {
    return threadObject<Workspace>();
}

Workspace::StackEnd Workspace::stackEnd() {
    StackEnd end;
#ifdef __GLIBC__
    // Enough for a node and for the formulas under it, but no large part of a small stack.
    constexpr std::size_t kMost = std::size_t{128} << 10;
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return end;
    void* begin = nullptr;
    std::size_t size = 0;
    if (pthread_attr_getstack(&attributes, &begin, &size) == 0)
        end = {reinterpret_cast<std::uintptr_t>(begin),
               reinterpret_cast<std::uintptr_t>(begin) + std::min(size / 4, kMost)};
    pthread_attr_destroy(&attributes);
#endif
    return end;
}

void Workspace::checkStack() const {
    char const here = 0;
    if (reinterpret_cast<std::uintptr_t>(&here) >= m_stackEnd.begin)
        throw std::length_error(
            "zel: the graph has more levels than the stack of this thread allows");
}

Workspace::Run::Run(Workspace& workspace) : m_workspace(workspace) {
    if (workspace.m_depth++ == 0 && workspace.m_constantCount == kMaxConstants) {
        workspace.m_slots = {};
        workspace.m_constants.release(nullptr);
        workspace.m_constantCount = 0;
        ++workspace.m_constantsVersion;
    }
}

float const* Workspace::constantFrom(unsigned slot, std::uint32_t bits) {
    while (m_slots[slot].values) {
        if (m_slots[slot].bits == bits) return m_slots[slot].values;
        slot = (slot + 1) % kSlots;
    }
    if (m_constantCount == kMaxConstants) return nullptr;
    float* const values = m_constants.floats(kBlockSize);
    std::fill_n(values, kBlockSize, std::bit_cast<float>(bits));
    m_slots[slot] = {bits, values};
    ++m_constantCount;
    return values;
}

}  // namespace zel::detail
