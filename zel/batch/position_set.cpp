#include "zel/batch/position_set.h"

#include <new>
#include <utility>

namespace zel::detail {

namespace {

std::size_t bucketOf(void const* node, bool gradient, std::size_t count) {
    auto const address = reinterpret_cast<std::uintptr_t>(node);
    return (((address >> 4) + gradient) * 0x9e3779b97f4a7c15U >> 40) & (count - 1);
}

/// Sorts the results of a set into new buckets.
void makeBuckets(PositionSet& set, std::size_t count, Workspace& workspace) {
    // NOLINTNEXTLINE(bugprone-sizeof-expression): the elements are pointers
    std::size_t const size = count * sizeof(KeptResult*);
    auto** const buckets = static_cast<KeptResult**>(workspace.kept.allocate(size));
    std::fill_n(buckets, count, nullptr);
    for (std::size_t i = 0; set.buckets && i < set.bucketCount; ++i)
        for (KeptResult* kept = set.buckets[i]; kept;) {
            KeptResult*& bucket = buckets[bucketOf(kept->node, kept->gradient, count)];
            kept = std::exchange(kept->next, std::exchange(bucket, kept));
        }
    set.buckets = buckets;
    set.bucketCount = count;
}

}  // namespace

KeptResult* PositionSet::find(void const* node, bool gradient) const {
    if (!buckets) return nullptr;
    KeptResult* kept = buckets[bucketOf(node, gradient, bucketCount)];
    while (kept && (kept->node != node || kept->gradient != gradient)) kept = kept->next;
    return kept;
}

KeptResult& PositionSet::add(void const* node, bool gradient, float* storage,
                             Workspace& workspace) {
    constexpr std::size_t kMostOfBucket = 4;
    if (!buckets)
        makeBuckets(*this, workspace.bucketCount, workspace);
    else if (keptCount >= kMostOfBucket * bucketCount)
        makeBuckets(*this, kMostOfBucket * bucketCount, workspace);
    KeptResult*& bucket = buckets[bucketOf(node, gradient, bucketCount)];
    auto* const kept = new (workspace.kept.allocate(sizeof(KeptResult))) KeptResult;
    kept->node = node;
    kept->gradient = gradient;
    kept->complete = kept->light = false;
    kept->known = {};
    kept->storage = storage;
    kept->next = std::exchange(bucket, kept);
    ++keptCount;
    return *kept;
}

PositionScope::PositionScope(Workspace& workspace, PositionSet& positions)
    : m_workspace(workspace), m_positions(positions), m_mark(workspace.kept.mark()),
      m_outer(std::exchange(workspace.innermost, &positions)) {}

PositionScope::~PositionScope() {
    // The next set has about as many results: a bucket each keeps the searches short.
    constexpr std::size_t kMostBuckets = 1024;
    while (m_workspace.bucketCount < std::min(m_positions.keptCount, kMostBuckets))
        m_workspace.bucketCount *= 2;
    m_workspace.kept.release(m_mark);
    m_workspace.innermost = m_outer;
}

}  // namespace zel::detail
