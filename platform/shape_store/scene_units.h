#pragma once

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/string.h"

namespace Vellum {

/// The key of an object's property with the length of a scene unit in metres, a `float`. The string
/// is initialised when the library is loaded, before the static objects of all programs that link
/// it.
ZEL_PLATFORM_API extern Quern::String const sceneUnitsInMeters;

}  // namespace Vellum
