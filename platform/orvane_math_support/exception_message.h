#pragma once

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/string.h"

namespace ORV {

/// The text of the exception by which work on a volume ends after it was cancelled. Whoever catches
/// it cancels what depends on that work, and reports nothing. Made when the library is loaded,
/// ahead of the statics of all that link it.
ZEL_PLATFORM_API extern Quern::String const exceptionMessage;

}  // namespace ORV
