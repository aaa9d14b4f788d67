#pragma once

#include "zel/api.h"

namespace zel::detail {

/// The passing on of a sampling hook from a node to its children. A tree is a graph: while a hook
/// runs through it, a node passes it on once, however many ways lead to it.
class ZEL_API HookWalk {
public:
    enum class Hook { kPre, kPost };

    /// The node's part of the hook that runs on this thread, or the start of one.
    HookWalk(void const* node, Hook hook);
    ~HookWalk();
    HookWalk(HookWalk const&) = delete;
    HookWalk& operator=(HookWalk const&) = delete;

    /// Whether the hook comes to the node for the first time.
    bool first() const { return m_first; }

    /// A hook that starts while this exists is one of its own, even inside of another.
    class ZEL_API Scope {
    public:
        Scope();
        ~Scope();
        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;

    private:
        int m_outerDepth;
        unsigned long long m_outerWalk;
    };

private:
    bool m_first;
};

}  // namespace zel::detail
