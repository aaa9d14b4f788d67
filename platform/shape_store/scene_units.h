#pragma once

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/string.h"

namespace Vellum {

/// The key of an object's property that says how long a unit of the scene is in metres: a `float`.
/// Made when the library is loaded, ahead of the statics of all that link it.
ZEL_PLATFORM_API extern Quern::String const sceneUnitsInMeters;

}  // namespace Vellum
