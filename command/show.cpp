#include <zel_scene/describe.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

void show(ShowOptions const& options) {
    zel::Tree const tree = Scene(SceneOptions{options.scene, {}, false}).tree();
    print(options.dot ? zel::toDot(tree) : zel::describe(tree));
}

}  // namespace command
