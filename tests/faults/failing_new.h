#pragma once

// All forms of operator new of the program and its libraries. They count the blocks that exist, and
// can be made to fail. The blocks that oneTBB's own code allocates are left alone: its scheduler
// does not survive a failure there.
namespace faults {

/// The blocks that were allocated and not yet released.
long long liveBlocks();

/// Has the next allocation but `count` fail, and no other.
void failAfter(long long count);
/// Has all allocations fail.
void failAll();
struct Failure {
    bool came = false;  ///< whether an allocation has failed
    /// Whether one has thrown. Others return null, and their callers may do without the memory.
    bool thrown = false;
};
/// Ends both.
Failure endFailures();

}  // namespace faults
