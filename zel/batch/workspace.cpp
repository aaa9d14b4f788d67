#include "zel/batch/workspace.h"

#include <algorithm>
#include <bit>

#include "zel/batch/thread_object.h"

namespace zel::detail {

Workspace& Workspace::local() {
    return threadObject<Workspace>();
}

Workspace::Run::Run(Workspace& workspace) : m_workspace(workspace) {
    if (workspace.m_depth++ == 0 && workspace.m_constantCount == kMaxConstants) {
        workspace.m_slots = {};
        workspace.m_constants.release(nullptr);
        workspace.m_constantCount = 0;
        ++workspace.m_constantsVersion;
    }
}

float const* Workspace::constant(float value) {
    auto const bits = std::bit_cast<std::uint32_t>(value);
    unsigned slot = (bits * 0x9e3779b1U) >> (32 - std::countr_zero(kSlots));
    while (m_slots[slot].values) {
        if (m_slots[slot].bits == bits) return m_slots[slot].values;
        slot = (slot + 1) % kSlots;
    }
    if (m_constantCount == kMaxConstants) return nullptr;
    float* const values = m_constants.floats(kBlockSize);
    std::fill_n(values, kBlockSize, value);
    m_slots[slot] = {bits, values};
    ++m_constantCount;
    return values;
}

}  // namespace zel::detail
