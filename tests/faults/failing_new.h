#pragma once

// All forms of operator new of the program and its libraries. They count the blocks that exist, and
// can be made to fail. The blocks that the code of oneTBB's and of OpenVDB's library allocates are
// left alone: oneTBB's scheduler does not survive a failure there, and a tree of OpenVDB, which
// allocates to release its nodes, ends the process.
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
