#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <stop_token>

namespace zel::detail {

/// What the tasks of one call tell its caller, and the caller them. `Options` has a member `stop`
/// and a member `progress`, as EvaluateOptions, which must outlive this.
class Watch {
public:
    template <class Options>
    explicit Watch(Options const& options, std::size_t all = 0)
        : m_stop(options.stop), m_progress(options.progress), m_all(all),
          m_lastReport(m_progress ? Clock::now().time_since_epoch() : Clock::duration()) {}

    /// Adds to the number of all positions, while no task runs.
    void expect(std::size_t count) { m_all += count; }

    /// Whether a task is to go on. It asks before each block.
    bool goesOn() {
        if (m_hasFailed.load(std::memory_order_relaxed)) return false;
        if (!m_stop.stop_requested()) return true;
        m_isStopped.store(true, std::memory_order_relaxed);
        return false;
    }

    /// Counts the positions of a block, and reports them if it is time to. Throws what the report
    /// throws.
    void finish(std::size_t count);
    /// The same where nobody asks isComplete(): without reports there is nothing to count, and a
    /// count that all threads share takes a good part of the time of a cheap block.
    void finishBlock(std::size_t count) {
        if (m_progress) finish(count);
    }

    /// Whether all positions are counted, when no task runs.
    bool isComplete() const { return m_done.load() == m_all; }

    /// Throws Stopped if a task was stopped.
    void throwIfStopped() const;
    /// The same, or reports that all positions are done.
    void finishAll() const;

private:
    using Clock = std::chrono::steady_clock;

    std::stop_token const& m_stop;
    std::function<void(std::size_t done, std::size_t all)> const& m_progress;
    std::size_t m_all;
    std::atomic<std::size_t> m_done = 0;
    std::atomic<Clock::duration> m_lastReport;  // since the clock's epoch
    std::atomic_flag m_isReporting;
    std::atomic<bool> m_isStopped = false, m_hasFailed = false;
};

}  // namespace zel::detail
