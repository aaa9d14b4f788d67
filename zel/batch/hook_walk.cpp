#include "zel/batch/hook_walk.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

#include "zel/batch/thread_object.h"
#include "zel/batch/workspace.h"

namespace zel::detail {

namespace {

/// The hooks that an operator has received in a walk.
struct Visit {
    HookTarget const* target = nullptr;
    long long prepared = 0;  ///< how often it was prepared and not yet released
    bool released = false;   ///< whether it was released without having been prepared

    /// Records a hook, and returns whether the operator must pass it on.
    bool enter(HookWalk::Hook hook) {
        if (hook == HookWalk::Hook::kPre) return prepared++ == 0;
        if (prepared > 0) return --prepared == 0;
        return !std::exchange(released, true);
    }
};

/// A walk, with a hash table of the operators that it has reached.
class Walk {
public:
    int depth = 0;  ///< the number of operators whose hooks run; the walk ends when it returns to 0

    /// The visit to an operator, added if there is none. Throws std::bad_alloc.
    Visit& at(HookTarget const& target) {
        if (m_count > 0)
            if (Visit& visit = find(m_visits, target); visit.target) return visit;
        if (2 * (m_count + 1) > m_visits.size()) grow();
        Visit& visit = find(m_visits, target);
        visit.target = &target;
        ++m_count;
        return visit;
    }

    void forget(HookTarget const& target) noexcept {
        if (m_count == 0) return;
        if (Visit& visit = find(m_visits, target); visit.target) visit = {&target};
    }

    void end() {
        // To clear a large table that is mostly empty would take longer than the walk.
        constexpr std::size_t kLarge = 1024;
        if (m_visits.size() > kLarge && 8 * m_count < m_visits.size())
            m_visits = {};
        else
            m_visits.assign(m_visits.size(), {});
        m_count = 0;
    }

private:
    /// The slot of the operator, or the free slot for it.
    static Visit& find(std::vector<Visit>& visits, HookTarget const& target) {
        std::size_t const mask = visits.size() - 1;
        std::size_t at =
            (reinterpret_cast<std::uintptr_t>(&target) >> 4) * 0x9e3779b97f4a7c15U >> 32;
        while (visits[at & mask].target && visits[at & mask].target != &target) ++at;
        return visits[at & mask];
    }
    void grow() {
        std::vector<Visit> larger(m_visits.empty() ? 64 : 2 * m_visits.size());
        for (Visit const& visit : m_visits)
            if (visit.target) find(larger, *visit.target) = visit;
        m_visits = std::move(larger);
    }

    std::vector<Visit> m_visits;
    std::size_t m_count = 0;
};

/// The walks of a thread, each started inside the one before it.
struct Walks {
    std::vector<Walk> all = std::vector<Walk>(1);
    std::size_t level = 0;

    Walk& current() { return all[level]; }
};

Walks& walks() {
    return threadObject<Walks>();
}

/// The sum of the depths of all walks of the thread.
thread_local constinit int operatorsAtWork = 0;

}  // namespace

HookWalk::HookWalk(HookTarget const& target, Hook hook)
    : m_target(target), m_exceptions(std::uncaught_exceptions()) {
    Workspace::local().expectStack();
    Walk& walk = walks().current();
    Visit& visit = walk.at(target);
    m_preparedBefore = visit.prepared;
    m_releasedBefore = visit.released;
    m_passesOn = visit.enter(hook);
    ++walk.depth;
    ++operatorsAtWork;
}

HookWalk::~HookWalk() {
    --operatorsAtWork;
    Walk& walk = walks().current();
    if (--walk.depth == 0)
        walk.end();
    else if (std::uncaught_exceptions() > m_exceptions)
        walk.at(m_target) = {&m_target, m_preparedBefore, m_releasedBefore};
}

HookTarget::~HookTarget() {
    if (operatorsAtWork == 0) return;
    Walks& of = walks();
    for (std::size_t level = 0; level <= of.level; ++level) of.all[level].forget(*this);
}

HookWalk::Scope::Scope() {
    Walks& of = walks();
    if (of.level + 1 == of.all.size()) of.all.emplace_back();
    ++of.level;
}

HookWalk::Scope::~Scope() {
    --walks().level;
}

}  // namespace zel::detail
