#pragma once

#include "zel/api.h"

namespace zel::detail {

/// Identifies an operator while hooks run, by its address. It is a member that adds no size.
class ZEL_API HookTarget {
public:
    HookTarget() = default;
    HookTarget(HookTarget const&) = default;
    ~HookTarget();  ///< removes the operator from the walks: its address may be used again
    HookTarget& operator=(HookTarget const&) = default;
};

/// The call of a sampling hook on an operator, which decides whether the operator passes the hook
/// on to its children. An operator with several parents receives the hook from each of them. A walk
/// is the outermost call of a hook on a thread, with all calls inside it. During a walk,
///
/// - `preSampleField` is passed on if the operator is not prepared. The operator stays prepared
///   until it has been released as often as it was prepared;
/// - `postSampleField` is passed on when it takes back the last preparation of the walk, and the
///   first time if the walk has not prepared the operator.
///
/// So a walk is linear in the graph. A node whose own hook prepares a tree, samples it and releases
/// it always samples a prepared tree, and leaves the tree as it was.
class ZEL_API HookWalk {
public:
    enum class Hook { kPre, kPost };

    /// Joins the walk that runs on this thread, or starts one. Throws std::bad_alloc, and
    /// std::length_error if the graph has more levels than the stack of the thread allows.
    HookWalk(HookTarget const& target, Hook hook);
    /// Ends the call. After an exception the operator counts as not called; descendants that it has
    /// prepared stay prepared.
    ~HookWalk();
    HookWalk(HookWalk const&) = delete;
    HookWalk& operator=(HookWalk const&) = delete;

    /// Whether the operator must pass the hook on.
    bool passesOn() const { return m_passesOn; }

    /// While it exists, a hook starts a walk of its own, even inside another walk.
    class ZEL_API Scope {
    public:
        Scope();
        ~Scope();
        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;
    };

private:
    HookTarget const& m_target;
    int m_exceptions;  // in flight when the hook was called
    long long m_preparedBefore;
    bool m_releasedBefore;
    bool m_passesOn;
};

}  // namespace zel::detail
