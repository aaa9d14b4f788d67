#pragma once

#include "platform_api.h"
#include "quern_core/string.h"

namespace ORV {

/// The text of the exception by which work on a volume ends after it was cancelled. Whoever catches
/// it cancels what depends on that work, and reports nothing. Made when the library is loaded,
/// ahead of the statics of all that link it.
ZEL_PLATFORM_API extern Quern::String const exceptionMessage;

}  // namespace ORV
