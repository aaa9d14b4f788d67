#include "zel/batch/watch.h"

#include "zel/field/stopped.h"

namespace zel::detail {

void Watch::finish(std::size_t count) {
    constexpr std::chrono::milliseconds kLeastInterval(20);
    m_done.fetch_add(count, std::memory_order_relaxed);
    if (!m_progress) return;
    auto const isEarly = [&] {
        return Clock::now().time_since_epoch() - m_lastReport.load() < kLeastInterval;
    };
    // A flag in place of a lock: the report may itself evaluate a field, and its thread then take a
    // task of this evaluation. Each sees what the one before it has stored.
    if (isEarly() || m_isReporting.test_and_set()) return;
    try {
        // Only now is it certain that no other thread has just reported.
        std::size_t const done = m_done.load(std::memory_order_relaxed);
        if (done < m_all && !m_hasFailed.load(std::memory_order_relaxed) && !isEarly()) {
            m_progress(done, m_all);
            m_lastReport.store(Clock::now().time_since_epoch());
        }
    } catch (...) {
        m_hasFailed.store(true, std::memory_order_relaxed);
        m_isReporting.clear();
        throw;
    }
    m_isReporting.clear();
}

void Watch::throwIfStopped() const {
    if (m_isStopped.load(std::memory_order_relaxed)) throw Stopped();
}

void Watch::finishAll() const {
    throwIfStopped();
    if (m_progress) m_progress(m_all, m_all);
}

}  // namespace zel::detail
