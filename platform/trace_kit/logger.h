#pragma once

#include "zel_platform/platform_api.h"

namespace Vellum {

/// The verbosity of messages in this process: warnings are printed from level 3 on. Safe to use
/// from any number of threads.
class ZEL_PLATFORM_API Logger {
public:
    Logger() = delete;

    static int verboseLevel();  ///< 0 until it is set
    static void setVerboseLevel(int level);
};

}  // namespace Vellum
