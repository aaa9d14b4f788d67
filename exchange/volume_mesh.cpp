#include "volume_mesh.h"

#include <openvdb/tools/VolumeToMesh.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <stdexcept>
#include <string>

#include "number_text.h"
#include "vdb_archive.h"
#include "vdb_tiles.h"
#include "zel/field/evaluate.h"
#include "zel_platform/quern_core/text_of.h"

namespace zel {

namespace {

void check(MeshOptions const& options) {
    auto const refuse = [](std::string const& message) {
        throw std::invalid_argument("zel::meshOf: " + message);
    };
    if (!(options.adaptivity >= 0 && options.adaptivity <= 1))
        refuse("an adaptivity of " + detail::numberText(options.adaptivity));
    if (!(options.band >= 1.5F))
        refuse("a band of " + detail::numberText(options.band) + " voxels");
    if (options.colour && !options.channels.empty()) refuse("two kinds of colours");
    if (options.channels.size() > 3)
        refuse(std::to_string(options.channels.size()) + " channels of colour");
    for (auto const& channel : options.channels)
        if (!channel) refuse("a channel of colour without a field");
}

/// Normals of length 1. Scaled before the length is taken, whose square may overflow.
float3 normal(float3 const& gradient) {
    float const most = std::max({std::abs(gradient.x), std::abs(gradient.y), std::abs(gradient.z)});
    if (!(most > 0) || std::isinf(most)) return {};
    float3 const g = gradient / most;
    float const length = std::sqrt(g.x * g.x + g.y * g.y + g.z * g.z);
    return std::isfinite(length) ? g / length : float3{};
}

/// Adds normals of the field, and of the faces of a box where they cut its solid.
void addNormals(Mesh& mesh, ScalarField const& field, Box const* cut, EvaluateOptions const& how) {
    mesh.normals.resize(mesh.positions.size());
    std::vector<float> values(cut ? mesh.positions.size() : 0);
    evaluate(field, PointView::of(mesh.positions), values, mesh.normals, how);
    for (float3& n : mesh.normals) n = normal(n);
    for (std::size_t i = 0; i < values.size(); ++i) {
        float3 const& p = mesh.positions[i];
        auto const face = detail::nearestFace(*cut, {p.x, p.y, p.z});
        if (face.distance > double{values[i]}) mesh.normals[i] = face.normal;
    }
}

void addColours(Mesh& mesh, MeshOptions const& options, EvaluateOptions const& how) {
    auto const points = PointView::of(mesh.positions);
    if (options.colour) {
        mesh.colours.resize(mesh.positions.size());
        evaluate(*options.colour, points, mesh.colours, how);
    } else if (!options.channels.empty()) {
        mesh.colours.resize(mesh.positions.size());
        std::vector<float> values(mesh.positions.size());
        for (std::size_t c = 0; c < options.channels.size(); ++c) {
            evaluate(*options.channels[c], points, values, how);
            for (std::size_t i = 0; i < values.size(); ++i)
                mesh.colours[i][static_cast<int>(c)] = values[i];
        }
        if (options.channels.size() == 1)
            for (float3& colour : mesh.colours) colour = {colour.x, colour.x, colour.x};
    }
}

}  // namespace

Mesh meshOf(ScalarField const& field, Box const& box, float voxelSize, MeshOptions const& options) {
    check(options);
    detail::initializeVdb();
    auto const transform = detail::transformOf(voxelSize);
    float const band = options.band * voxelSize;
    BuildOptions build;
    build.outside = band;
    build.parallel = options.parallel;
    build.stop = options.stop;
    build.progress = options.progress;
    auto const volume = buildVolume<BinaryTraits>(field, detail::widened(box, voxelSize), voxelSize,
                                                  options.band, build);
    auto const grid = detail::levelSetOf(
        volume, band, detail::voxelsIn(box, voxelSize), transform, [&](openvdb::Coord const& at) {
            auto const p = transform->indexToWorld(at);
            throw std::invalid_argument(Quern::Internal::textOf([&](std::ostream& text) {
                text << "zel::meshOf: the field is NaN at [" << p[0] << ", " << p[1] << ", " << p[2]
                     << ']';
            }));
        });
    EvaluateOptions how;
    how.parallel = options.parallel;
    how.stop = options.stop;
    bool const isCut = detail::closeAtFaces(*grid, field, box, voxelSize, band, how);
    std::vector<openvdb::Vec3s> points;
    std::vector<openvdb::Vec3I> triangles;
    std::vector<openvdb::Vec4I> quads;
    openvdb::tools::volumeToMesh(*grid, points, triangles, quads, 0, double{options.adaptivity});
    if (points.size() > 0xFFFFFFFFU)
        throw std::length_error("zel::meshOf: " + std::to_string(points.size()) + " vertices");

    Mesh mesh;
    mesh.positions.reserve(points.size());
    for (auto const& p : points) mesh.positions.push_back({p[0], p[1], p[2]});
    // OpenVDB has the corners of a face in clockwise order.
    for (auto const& t : triangles) mesh.triangles.push_back({t[2], t[1], t[0]});
    for (auto const& q : quads) mesh.quads.push_back({q[3], q[2], q[1], q[0]});
    if (options.normals && !points.empty()) addNormals(mesh, field, isCut ? &box : nullptr, how);
    addColours(mesh, options, how);
    return mesh;
}

}  // namespace zel
