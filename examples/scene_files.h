#pragma once

#include <string>
#include <vector>

#include <zel_scene/json.h>

#include "trees.h"

// The scenes in examples/scenes, which the example programs share.
namespace examples {

/// The scene in a file if `scene` ends in ".json", else the one of that name in the folder of the
/// examples. Throws std::runtime_error with the name of the file, and what is wrong with it.
ScalarPtr loadScalar(std::string const& scene);
VectorPtr loadVector(std::string const& scene);

/// The same with the text at `place`, a JSON pointer, replaced first.
ScalarPtr loadScalar(std::string const& scene, char const* place, char const* text);

struct SceneTitle {
    std::string name, title;
};

/// All scalar scenes of the examples, in the order of their names.
std::vector<SceneTitle> sceneTitles();

}  // namespace examples
