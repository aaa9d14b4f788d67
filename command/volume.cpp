#include <span>
#include <stdexcept>

#include <zel_exchange/suffix.h>
#include <zel_exchange/vdb_write.h>

#include "commands.h"
#include "dense.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

void writeVdb(Scene const& scene, zel::Tree const& tree, VolumeOptions const& options,
              std::stop_token const& stop) {
    zel::VdbField field;
    if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree)) {
        bool const isLevelSet = options.band && !options.fog;
        field.scalar = *scalar;
        field.name = isLevelSet ? "surface" : "density";
        field.gridClass = isLevelSet    ? zel::VdbClass::kLevelSet
                          : options.fog ? zel::VdbClass::kFogVolume
                                        : zel::VdbClass::kUnknown;
    } else {
        if (options.band || options.fog)
            throw std::runtime_error(scene.name() +
                                     ": is a vector field, which has no --band and no --fog");
        field.vector = std::get<zel::VectorPtr>(tree);
        field.name = "vector";
    }
    if (!options.name.empty()) field.name = options.name;
    Progress progress("samples");
    zel::WriteVdbOptions how;
    how.band = options.band;
    how.half = options.half;
    how.stop = stop;
    how.progress = progress.function();
    zel::writeVdb(options.output, {field}, boxOf(options.grid),
                  static_cast<float>(options.grid.voxel), how);
}

}  // namespace

void volume(VolumeOptions const& options, Ranks& ranks, std::stop_token const& stop) {
    expectFiles(ranks, std::span(&options.scene.scene, 1));
    auto const suffix = zel::detail::lowerSuffix(options.output);
    if (suffix != ".npy" && suffix != ".vdb")
        throw std::runtime_error(options.output + ": a volume is written as .vdb or .npy");
    if (suffix == ".npy" && (options.band || options.fog || options.half || !options.name.empty()))
        throw std::runtime_error(options.output +
                                 ": --band, --fog, --half and --name are for a .vdb file");
    Scene const scene(options.scene);
    zel::Tree const tree = scene.complete();
    if (suffix == ".vdb")
        writeVdb(scene, tree, options, stop);
    else
        writeDense(tree, options, ranks, stop);
}

}  // namespace command
