#pragma once

#include "zel/api.h"

namespace zel::detail {

/// What an operator is known by while hooks run: a member without a size, at an address of its own.
class ZEL_API HookTarget {
public:
    HookTarget() = default;
    HookTarget(HookTarget const&) = default;
    ~HookTarget();  ///< the hooks forget the operator: another may come to lie at its address
    HookTarget& operator=(HookTarget const&) = default;
};

/// The passing on of a sampling hook by an operator to its children. A tree is a graph, and a hook
/// comes to an operator by each of its parents. During a walk, which is the outermost call of a
/// hook on a thread with all that it calls,
///
/// - `preSampleField` is passed on if the operator is not prepared yet. It stays prepared until it
///   has been released as often as it was prepared;
/// - `postSampleField` is passed on when the last preparation of the same walk is taken back; and,
///   where the walk has not prepared the operator, the first time.
///
/// So a walk is linear in the graph, and a node whose own hook prepares a tree, samples it and
/// releases it always samples a prepared one, and leaves the tree as it was.
class ZEL_API HookWalk {
public:
    enum class Hook { kPre, kPost };

    /// A hook comes to an operator: within the walk that runs on this thread, or as the start of
    /// one. Throws std::bad_alloc.
    HookWalk(HookTarget const& target, Hook hook);
    /// Leaves the operator. If an exception passes, the hook counts as not called for it; what it
    /// has prepared below stays prepared.
    ~HookWalk();
    HookWalk(HookWalk const&) = delete;
    HookWalk& operator=(HookWalk const&) = delete;

    /// Whether the operator is to pass the hook on.
    bool passesOn() const { return m_passesOn; }

    /// A hook that is called while this exists starts a walk of its own, even inside of another.
    class ZEL_API Scope {
    public:
        Scope();
        ~Scope();
        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;
    };

private:
    HookTarget const& m_target;
    int m_exceptions;  // that were in flight when the hook came
    long long m_preparedBefore;
    bool m_releasedBefore;
    bool m_passesOn;
};

}  // namespace zel::detail
