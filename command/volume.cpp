#include <array>
#include <cmath>
#include <cstdint>
#include <span>
#include <stdexcept>

#include <zel/field/evaluate.h>
#include <zel_exchange/npy.h>
#include <zel_exchange/suffix.h>
#include <zel_exchange/vdb_write.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

using Orvane::Math::float3;

/// Samples at low + i * voxel along each axis, the last axis fastest.
class Lattice {
public:
    explicit Lattice(GridOptions const& options) : m_voxel(options.voxel) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            m_low[axis] = options.box[axis];
            // A box of a whole number of voxels has samples on both faces, however it is rounded.
            double const steps = std::floor((options.box[axis + 3] - m_low[axis]) / m_voxel + 1e-4);
            constexpr double kMost = 1 << 30;
            if (!(steps >= 0 && steps < kMost))
                throw std::runtime_error("--box and --voxel give no array of samples, or more "
                                         "than 2^30 along an axis");
            m_counts[axis] = static_cast<std::uint64_t>(steps) + 1;
        }
    }

    std::array<std::uint64_t, 3> const& counts() const { return m_counts; }
    /// How many samples there are. Below 2^63, as npyHeader() demands of their bytes.
    std::uint64_t size() const { return m_counts[0] * m_counts[1] * m_counts[2]; }

    /// The positions of the samples from `first` on.
    void positions(std::uint64_t first, std::span<float3> positions) const {
        std::uint64_t k = first % m_counts[2];
        std::uint64_t j = first / m_counts[2] % m_counts[1];
        std::uint64_t i = first / m_counts[2] / m_counts[1];
        for (float3& position : positions) {
            position = {at(0, i), at(1, j), at(2, k)};
            if (++k < m_counts[2]) continue;
            k = 0;
            if (++j < m_counts[1]) continue;
            j = 0;
            ++i;
        }
    }

private:
    float at(std::size_t axis, std::uint64_t i) const {
        return static_cast<float>(m_low[axis] + static_cast<double>(i) * m_voxel);
    }

    double m_voxel;
    std::array<double, 3> m_low{};
    std::array<std::uint64_t, 3> m_counts{};
};

template <class Interface, class Value>
void writeNpy(Interface const& field, VolumeOptions const& options, std::stop_token const& stop) {
    Lattice const lattice(options.grid);
    zel::NpyLayout layout;
    layout.shape.assign(lattice.counts().begin(), lattice.counts().end());
    if constexpr (std::is_same_v<Value, float3>) layout.shape.push_back(3);
    zel::NpyWriter file(options.output, layout);
    Progress progress("samples");
    constexpr std::uint64_t kAtATime = 1 << 18;
    std::vector<float3> positions;
    std::vector<Value> values;
    for (std::uint64_t first = 0; first < lattice.size(); first += kAtATime) {
        auto const count = static_cast<std::size_t>(std::min(kAtATime, lattice.size() - first));
        positions.resize(count);
        values.resize(count);
        lattice.positions(first, positions);
        zel::EvaluateOptions how;
        how.firstIndex = static_cast<long long>(first);
        how.stop = stop;
        evaluate(field, zel::PointView::of(positions), values, how);
        file.write(std::span<Value const>(values));
        progress(static_cast<std::size_t>(first) + count, static_cast<std::size_t>(lattice.size()));
    }
    file.commit();
}

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

void volume(VolumeOptions const& options, std::stop_token const& stop) {
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
    else if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree))
        writeNpy<zel::ScalarField, float>(**scalar, options, stop);
    else
        writeNpy<zel::VectorField, float3>(*std::get<zel::VectorPtr>(tree), options, stop);
}

}  // namespace command
