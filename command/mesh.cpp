#include <stdexcept>

#include <zel_exchange/mesh_file.h>
#include <zel_exchange/volume_mesh.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

/// Sets the colours to those of one vector field, or of a scalar field for each colour.
void setColors(zel::MeshOptions& how, std::span<Scene const> scenes) {
    for (Scene const& scene : scenes) {
        zel::Tree const color = scene.complete();
        if (scenes.size() == 1 && std::holds_alternative<zel::VectorPtr>(color))
            how.colour = std::get<zel::VectorPtr>(color);
        else
            how.channels.push_back(
                scene.completeScalar("several --color must be scalar fields, one for each colour"));
    }
}

}  // namespace

void mesh(MeshOptions const& options, std::stop_token const& stop) {
    // Before the work, after which writeMesh() would refuse it.
    expectSuffix(options.output, "a mesh", {".ply", ".obj"});
    if (options.colors.size() > 3)
        throw std::runtime_error("--color is given " + std::to_string(options.colors.size()) +
                                 " times, and there are three colours");
    std::vector<std::string> files{options.scene.scene};
    files.insert(files.end(), options.colors.begin(), options.colors.end());
    expectOneInput(files);
    checkVoxels(options.grid);
    expectWritable(options.output);
    auto const scenes = Scene::read(files, options.scene);
    zel::ScalarPtr const field = scenes.front().completeScalar("a mesh needs a scalar field");
    zel::Mesh mesh;
    {
        Progress progress("samples");
        zel::MeshOptions how;
        how.adaptivity = options.adaptivity;
        how.stop = stop;
        how.progress = progress.function();
        setColors(how, std::span(scenes).subspan(1));
        try {
            mesh = zel::meshOf(*field, boxOf(options.grid), static_cast<float>(options.grid.voxel),
                               how);
        } catch (std::invalid_argument const& error) {
            throw std::runtime_error(scenes.front().name() + ": " + error.what());
        }
    }
    zel::writeMesh(options.output, mesh);
    if (mesh.positions.empty())
        warn(options.output + ": has no faces, since the scene has no surface in the --box");
}

}  // namespace command
