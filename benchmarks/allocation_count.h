#pragma once

#include <cstddef>

/// Counts allocations by operator new, in all threads, while an object of this class exists; there
/// may be only one at a time. Allocations by malloc, or by a library's own allocator, are not
/// counted.
class AllocationCount {
public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(AllocationCount const&) = delete;
    AllocationCount& operator=(AllocationCount const&) = delete;

    std::size_t blocks() const;
    std::size_t bytes() const;
};
