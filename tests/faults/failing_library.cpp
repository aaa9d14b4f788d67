#include "faults/failing_new.h"

// The failing operator new as a library to be loaded before others, by LD_PRELOAD.
extern "C" {

void zel_fail_after(long long count) {
    faults::failAfter(count);
}
/// Whether an allocation failed since zel_fail_after(), which ends.
bool zel_end_failures() {
    return faults::endFailures().came;
}
long long zel_live_blocks() {
    return faults::liveBlocks();
}
}
