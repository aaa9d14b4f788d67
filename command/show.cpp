#include <zel_exchange/output_file.h>
#include <zel_scene/describe.h>

#include "commands.h"
#include "scene.h"

namespace command {

void show(ShowOptions const& options) {
    zel::Tree const tree = Scene(SceneOptions{options.scene, {}, false}).tree();
    zel::OutputFile file("-");
    file.write(options.dot ? zel::toDot(tree) : zel::describe(tree));
    file.commit();
}

}  // namespace command
