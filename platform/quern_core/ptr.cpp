#include "zel_platform/quern_core/ptr.h"

namespace Quern::Internal {

namespace {

/// The limit of nested releases. A level takes about 200 bytes of stack, plus the stack of the
/// object's destructor.
constexpr int kMostLevels = 64;

thread_local constinit int levels = 0;
thread_local constinit ControlBlock* firstWaiting = nullptr;

}  // namespace

void ControlBlock::destroyInBoundedStack() noexcept {
    if (levels == kMostLevels) {
        managed = std::exchange(firstWaiting, this);
        return;
    }
    ++levels;
    destroy();
    if (levels == 1) {
        while (firstWaiting) {
            ControlBlock* const block = firstWaiting;
            firstWaiting = static_cast<ControlBlock*>(block->managed);
            block->destroy();
        }
    }
    --levels;
}

}  // namespace Quern::Internal
