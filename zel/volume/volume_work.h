#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "zel/batch/run_batch.h"
#include "zel/batch/watch.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"
#include "zel_platform/quern_core/float_environment.h"

namespace zel::detail {

/// The evaluation of a field at the positions of a volume by one call of a caller: the hooks of the
/// field, once for all positions, the tasks, the caller's request to stop, and the report of
/// progress.
class VolumeWork {
public:
    /// `caller` is the name of the call, for messages. The other parameters must outlive this.
    template <class Options>
    VolumeWork(char const* caller, Options const& options)
        : m_caller(caller), m_parallel(options.parallel), m_batch(newBatch()), m_watch(options) {}

    /// Calls `work()` between the two hooks of the field, in the caller's arena, or on the calling
    /// thread alone, and reports at its end that all positions are done. After an exception the
    /// second hook is not called.
    template <class Interface, class Work> void run(Interface const& field, Work const& work) {
        Quern::Internal::FloatEnvironment const standard;  // for the hooks; tasks set it, too
        callHook([&] { field.preSampleField(); });
        if (m_parallel)
            work();
        else
            tbb::task_arena(1).execute(work);
        m_watch.finishAll();
        callHook([&] { field.postSampleField(); });
    }

    /// Calls `body(first, last)`, in parallel, for groups of `size` items that cover 0 to `count` -
    /// 1; the last group may be smaller. Groups do not depend on the number of threads. An item
    /// consists of `positions` positions. Throws Stopped, and std::runtime_error if a node
    /// cancelled the tasks.
    template <class Body>
    void forGroups(long long count, long long size, int positions, Body const& body) {
        m_watch.expect(static_cast<std::size_t>(count * positions));
        stopIfAsked();
        ORV::TileTree3D::Internal::parallelRanges(
            (count + size - 1) / size, 1, [&](long long begin, long long end) {
                for (long long group = begin; group < end && m_watch.goesOn(); ++group) {
                    long long const first = group * size, last = std::min(first + size, count);
                    body(first, last);
                    m_watch.finish(static_cast<std::size_t>((last - first) * positions));
                }
            });
        checkComplete();
    }

    /// Throws Stopped if that is asked for. Not for tasks.
    void stopIfAsked();

    /// The number of the batch, for evaluateRun().
    std::uint64_t batch() const { return m_batch; }

private:
    static void callHook(std::function<void()> const& hook);
    void checkComplete() const;

    char const* m_caller;
    bool m_parallel;
    std::uint64_t m_batch;
    Watch m_watch;
};

}  // namespace zel::detail
