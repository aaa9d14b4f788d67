#pragma once

#include <tbb/parallel_for.h>

#if defined(__SANITIZE_THREAD__)
#define ZEL_THREAD_SANITIZER
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEL_THREAD_SANITIZER
#endif
#endif

#ifdef ZEL_THREAD_SANITIZER
#include <sanitizer/tsan_interface.h>
#endif

namespace Quern::Internal {

#ifdef ZEL_THREAD_SANITIZER
/// tbb::parallel_for. The thread sanitizer does not see how oneTBB, which is not instrumented,
/// hands tasks to other threads and waits for their end: it is told so here, by one place in memory
/// for the beginning of all tasks and one for their end, so that tasks are not ordered by each
/// other.
template <class Range, class Body>
void parallelFor(Range const& all, Body const& body, tbb::task_group_context& context) {
    struct Order {
        ~Order() { atEnd(place); }
        char* place;
        void (*atEnd)(void*);
    };
    char begin = 0, end = 0;
    __tsan_release(&begin);
    Order const loop{&end, [](void* place) { __tsan_acquire(place); }};
    // Not instrumented: before the acquire it reads its captures, which a thread of oneTBB's may
    // have copied here.
    auto const inTask = [&](Range const& range) __attribute__((no_sanitize("thread"))) {
        __tsan_acquire(&begin);
        Order const task{&end, [](void* place) { __tsan_release(place); }};
        body(range);
    };
    tbb::parallel_for(all, inTask, tbb::auto_partitioner(), context);
}
#else
template <class Range, class Body>
void parallelFor(Range const& all, Body const& body, tbb::task_group_context& context) {
    tbb::parallel_for(all, body, tbb::auto_partitioner(), context);
}
#endif

}  // namespace Quern::Internal
