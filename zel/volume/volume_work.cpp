#include "zel/volume/volume_work.h"

#include <stdexcept>
#include <string>

#include "zel/batch/evaluate_range.h"
#include "zel/batch/hook_walk.h"
#include "zel/field/stopped.h"

namespace zel::detail {

namespace {

constexpr std::chrono::milliseconds kBetweenReports{20};

}  // namespace

VolumeWork::VolumeWork(char const* caller, bool parallel, std::stop_token const& stop,
                       std::function<void(std::size_t, std::size_t)> const& progress)
    : m_caller(caller), m_parallel(parallel), m_stop(stop), m_progress(progress),
      m_batch(newBatch()), m_nextReport(Clock::now() + kBetweenReports) {}

void VolumeWork::callHook(std::function<void()> const& hook) {
    HookWalk::Scope const ownWalk;
    hook();
}

void VolumeWork::stopIfAsked() const {
    if (m_stop.stop_requested()) throw Stopped();
}

void VolumeWork::add(std::size_t positions) {
    m_done += positions;
    if (!m_progress || Clock::now() < m_nextReport.load()) return;
    // A report that throws leaves the flag set, and is the last.
    if (m_isReporting.test_and_set(std::memory_order_acquire)) return;
    if (Clock::now() >= m_nextReport.load()) {  // another thread may have reported since
        m_progress(m_done, m_all);
        m_nextReport = Clock::now() + kBetweenReports;
    }
    m_isReporting.clear(std::memory_order_release);
}

void VolumeWork::checkComplete() const {
    if (m_done != m_all)
        throw std::runtime_error(std::string(m_caller) + ": a node of the field cancelled " +
                                 "the tasks that evaluated it");
}

}  // namespace zel::detail
