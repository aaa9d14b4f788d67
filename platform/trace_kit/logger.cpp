#include "zel_platform/trace_kit/logger.h"

#include <atomic>

namespace Vellum {

namespace {
std::atomic<int> currentLevel{0};
}  // namespace

int Logger::verboseLevel() {
    return currentLevel.load(std::memory_order_relaxed);
}

void Logger::setVerboseLevel(int level) {
    currentLevel.store(level, std::memory_order_relaxed);
}

}  // namespace Vellum
