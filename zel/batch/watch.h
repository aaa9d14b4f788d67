#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>

#include "zel/field/evaluate.h"

namespace zel::detail {

/// What the tasks of one evaluation tell its caller, and the caller them.
class Watch {
public:
    Watch(EvaluateOptions const& options, std::size_t all)
        : m_options(options), m_all(all),
          m_lastReport(options.progress ? Clock::now().time_since_epoch() : Clock::duration()) {}

    /// Whether a task is to go on. It asks before each block.
    bool goesOn() {
        if (m_hasFailed.load(std::memory_order_relaxed)) return false;
        if (!m_options.stop.stop_requested()) return true;
        m_isStopped.store(true, std::memory_order_relaxed);
        return false;
    }

    /// Counts the positions of a block, and reports them if it is time to. Throws what the report
    /// throws.
    void finish(std::size_t count);

    /// Throws Stopped if a task was stopped, or reports that all positions are done.
    void finishAll() const;

private:
    using Clock = std::chrono::steady_clock;

    EvaluateOptions const& m_options;
    std::size_t const m_all;
    std::atomic<std::size_t> m_done = 0;
    std::atomic<Clock::duration> m_lastReport;  // since the clock's epoch
    std::atomic_flag m_isReporting;
    std::atomic<bool> m_isStopped = false, m_hasFailed = false;
};

}  // namespace zel::detail
