#pragma once

#include <string>

#include "zel_scene/api.h"

namespace zel {

/// A JSON Schema, of draft 7, of the files that fromJson() reads, with all classes that are
/// registered. docs/scene.schema.json is that of the library's own. Some errors it does not see:
/// among others, names that are not in "nodes" or are of the other kind. Throws std::bad_alloc.
ZEL_SCENE_API std::string sceneSchema();

}  // namespace zel
