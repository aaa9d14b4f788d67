#pragma once

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/string.h"

namespace ORV {

/// The text of the exception that ends work on a volume after the work was cancelled. A function
/// that catches it cancels the work that depends on the volume, and reports nothing. The string is
/// initialised when the library is loaded, before the static objects of all programs that link it.
ZEL_PLATFORM_API extern Quern::String const exceptionMessage;

}  // namespace ORV
