#pragma once

#include <tbb/blocked_range.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include "zel_platform/quern_core/float_environment.h"
#include "zel_platform/quern_core/parallel_for.h"

namespace ORV::TileTree3D::Internal {

/// Calls `body(first, last)` for ranges that cover 0 to `count` - 1, in parallel. While it waits,
/// the calling thread runs none of the caller's other tasks. An exception of `body` is passed on,
/// and does not cancel the caller's other tasks. Each range is computed with the rounding of a
/// program's start, whatever the caller or the threads of oneTBB have set.
template <class Body> void parallelRanges(long long count, long long grain, Body const& body) {
    tbb::this_task_arena::isolate([&] {
        tbb::task_group_context context(tbb::task_group_context::isolated);
        Quern::Internal::parallelFor(
            tbb::blocked_range<long long>(0, count, static_cast<std::size_t>(grain)),
            [&](tbb::blocked_range<long long> const& range) {
                Quern::Internal::FloatEnvironment const standard;
                body(range.begin(), range.end());
            },
            context);
    });
}

}  // namespace ORV::TileTree3D::Internal
