#pragma once

#include <cstddef>

/// Counts what operator new hands out, anywhere in the process, while an object of this class
/// exists. What a library takes from malloc or from its own allocator is not seen. One object at a
/// time.
class AllocationCount {
public:
    AllocationCount();
    ~AllocationCount();
    AllocationCount(AllocationCount const&) = delete;
    AllocationCount& operator=(AllocationCount const&) = delete;

    std::size_t blocks() const;
    std::size_t bytes() const;
};
