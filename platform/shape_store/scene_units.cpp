#include "zel_platform/shape_store/scene_units.h"

namespace Vellum {

Quern::String const sceneUnitsInMeters = "scene units in meters";

}  // namespace Vellum
