#include <zel_exchange/mesh_file.h>
#include <zel_exchange/volume_mesh.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

void mesh(MeshOptions const& options, std::stop_token const& stop) {
    // Before the work, after which writeMesh() would refuse it.
    expectSuffix(options.output, "a mesh", {".ply", ".obj"});
    checkVoxels(options.grid);
    expectWritable(options.output);
    zel::ScalarPtr const field = Scene(options.scene).completeScalar("a mesh needs a scalar field");
    Progress progress("samples");
    zel::MeshOptions how;
    how.adaptivity = options.adaptivity;
    how.stop = stop;
    how.progress = progress.function();
    if (!options.color.empty()) {
        zel::Tree const color =
            Scene(SceneOptions{options.color, {}, options.scene.allowUnbound}).complete();
        if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&color))
            how.channels = {*scalar};
        else
            how.colour = std::get<zel::VectorPtr>(color);
    }
    zel::writeMesh(options.output, zel::meshOf(*field, boxOf(options.grid),
                                               static_cast<float>(options.grid.voxel), how));
}

}  // namespace command
