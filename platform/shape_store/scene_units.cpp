#include "zel_platform/shape_store/scene_units.h"

namespace Vellum {

ZEL_PLATFORM_FIRST Quern::String const sceneUnitsInMeters = "scene units in meters";

}  // namespace Vellum
