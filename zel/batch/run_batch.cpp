#include "zel/batch/run_batch.h"

#include <dlfcn.h>
#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#include <tbb/version.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

#include "zel/batch/evaluate_range.h"
#include "zel/batch/hook_walk.h"
#include "zel_platform/quern_core/float_environment.h"
#include "zel_platform/quern_core/parallel_for.h"

namespace zel::detail {

namespace {

/// Keeps oneTBB's code in memory when a host unloads libzel: its threads outlive the last batch.
[[maybe_unused]] bool const keepsTasks = [] {
    Dl_info library;
    return dladdr(reinterpret_cast<void*>(&TBB_runtime_interface_version), &library) != 0 &&
           dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE) != nullptr;
}();

/// Nanoseconds that a batch may take on the calling thread alone: about as long as other threads
/// need to wake.
constexpr float kShort = 40'000;
/// Nanoseconds that a task takes at least, so that it costs little.
constexpr float kTask = 4'000;
/// Positions that a task has at least.
constexpr std::size_t kLeastTask = 4;

/// The work of a batch between its hooks, on the calling thread and in tasks.
template <class Interface> class BatchWork {
public:
    BatchWork(Interface const& field, Batch<Interface> const& batch, KnownGraph const& graph)
        : m_field(field), m_batch(batch),
          m_graph(graph), m_graphOfBatch{graph.isPure ? &m_graph : nullptr,
                                         graph.isPure ? 0 : newBatch()} {}
    BatchWork(BatchWork const&) = delete;
    BatchWork& operator=(BatchWork const&) = delete;

    void run() {
        std::size_t const count = m_batch.points.count;
        if (count <= 1)
            runRange(0, count);
        else if (m_batch.parallel)
            share();
        else
            runHere(0, count);
        if (!m_context || !m_context->is_group_execution_cancelled()) return;
        // By a node: some blocks are missing.
        if (m_batch.values) std::fill_n(m_batch.values, m_batch.points.count, Value{});
        if (m_batch.gradients) std::fill_n(m_batch.gradients, m_batch.points.count, Gradient{});
    }

private:
    using Value = typename Interface::Value;
    using Gradient = typename Interface::Gradient;
    using Clock = std::chrono::steady_clock;

    /// Evaluates all positions: on this thread if that is over soon, as some positions show.
    void share() {
        constexpr std::size_t kSample = 64, kWorthTiming = 1024;
        std::size_t const count = m_batch.points.count;
        bool const withGradients = m_batch.gradients != nullptr;
        float const lastTime = m_graph.positionTimes[withGradients];
        bool const wasShort = lastTime > 0 && lastTime * static_cast<float>(count) <= kShort;
        std::size_t const first = wasShort ? count : std::min(count, kSample);
        if (first == count && count < kWorthTiming) return runHere(0, count);

        auto const start = Clock::now();
        runHere(0, first);
        std::chrono::duration<float, std::nano> const taken = Clock::now() - start;
        float const time = std::max(taken.count() / static_cast<float>(first), 0.01F);
        KnownGraphs::local().noteTime(m_graph.version, withGradients, time);
        if (first == count) return;

        using Control = tbb::global_control;
        bool const isAlone = tbb::this_task_arena::max_concurrency() == 1 ||
                             Control::active_value(Control::max_allowed_parallelism) == 1;
        if (isAlone || time * static_cast<float>(count - first) <= kShort)
            runHere(first, count);
        else
            runTasks(first, count, std::max(static_cast<std::size_t>(kTask / time), kLeastTask));
    }

    void runHere(std::size_t begin, std::size_t end) {
        // A user's node may ask for the task that it runs in.
        if (m_graph.isPure)
            runRange(begin, end);
        else
            runTasks(begin, end, end - begin);
    }

    void runTasks(std::size_t begin, std::size_t end, std::size_t grain) {
        // Isolated: cancelling the tasks of the caller does not interrupt the batch.
        if (!m_context) m_context.emplace(tbb::task_group_context::isolated);
        if (m_context->is_group_execution_cancelled()) return;
        Quern::Internal::parallelFor(
            tbb::blocked_range<std::size_t>(begin, end, grain),
            [this](auto const& range) { runRange(range.begin(), range.end()); }, *m_context);
    }

    void runRange(std::size_t begin, std::size_t end) const {
        Quern::Internal::FloatEnvironment const standard;
        evaluateRange(m_field, m_batch, m_graphOfBatch, begin, end);
    }

    Interface const& m_field;
    Batch<Interface> const& m_batch;
    KnownGraph const m_graph;
    GraphOfBatch const m_graphOfBatch;
    std::optional<tbb::task_group_context> m_context;
};

}  // namespace

std::uint64_t newBatch() {
    static std::atomic<std::uint64_t> last = 0;
    return ++last;
}

template <class Interface> void runBatch(Interface const& field, Batch<Interface> const& batch) {
    Quern::Internal::FloatEnvironment const standard;  // for the hooks; each task sets its own
    if (batch.watch && !batch.watch->goesOn()) throw Stopped();
    KnownGraph const& graph = KnownGraphs::local().find(field);
    bool const isPure = graph.isPure;
    BatchWork work(field, batch, graph);
    if (!isPure) {
        HookWalk::Scope const ownWalk;
        field.preSampleField();
    }
    work.run();
    if (batch.watch) batch.watch->finishAll();
    if (isPure) return;
    HookWalk::Scope const ownWalk;
    field.postSampleField();
}

template void runBatch(Core::Fields::ScalarField const&, Batch<Core::Fields::ScalarField> const&);
template void runBatch(Core::Fields::VectorField const&, Batch<Core::Fields::VectorField> const&);

}  // namespace zel::detail
