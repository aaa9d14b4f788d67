#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "vdb.h"
#include "vdb_layout.h"
#include "zel/volume/build_volume.h"

namespace zel::detail {

using ORV::TileTree3D::BinaryTraits;
using ORV::TileTree3D::QuinaryTraits;
using Orvane::Math::int3;
template <class Traits> using TileContainer = ORV::TileTree3D::Container<Traits>;
template <class Traits> using TileTopology = ORV::TileTree3D::VoxelTopology<Traits>;

/// A box of 8 voxels along each axis, on multiples of 8, and which of its eight parts are not
/// constant: bit x + 2y + 4z.
struct VdbCell {
    int3 corner;
    std::uint8_t parts;
};

/// Thrown where a tree would exceed a limit.
struct TooManyTiles {};
/// Thrown for values beyond the lattice of a tile tree.
struct OutsideLattice {
    int3 at;
};

/// A value that no channel may have, and its place in the index space of OpenVDB.
struct WrongValue {
    int3 at;
    float value;  ///< the component at fault
};

/// The types of grids that are read. Those that are written are among them.
inline constexpr std::array kVdbTypes{"Tree_float_5_4_3", "Tree_double_5_4_3", "Tree_vec3s_5_4_3",
                                      "Tree_vec3d_5_4_3"};

/// A grid of OpenVDB as the source of a channel. The lattice point of a tile tree that has the
/// value of a voxel is the voxel's index plus a shift.
class VdbValues {
public:
    VdbValues() = default;
    VdbValues(VdbValues const&) = delete;
    VdbValues& operator=(VdbValues const&) = delete;
    virtual ~VdbValues();

    /// See VdbScan.
    virtual std::vector<VdbCell> cells(long long limit, int3 const& centre, int reach) const = 0;

    /// Clears the flags of those boxes that are not constant: of 4 or 5 voxels along each axis.
    /// Boxes are given by the indices of their corners.
    virtual void findConstant(std::vector<int3> const& boxes, int width,
                              std::vector<char>& constant) const = 0;

    /// Makes the channel over a tree in which no box without a finest tile has different values.
    /// Throws WrongValue.
    virtual NamedVolume channel(std::string const& name,
                                Quern::Ptr<TileContainer<BinaryTraits>> const& tree,
                                Quern::Ptr<TileTopology<BinaryTraits>> const& topology,
                                int3 const& shift) const = 0;
    virtual NamedVolume channel(std::string const& name,
                                Quern::Ptr<TileContainer<QuinaryTraits>> const& tree,
                                Quern::Ptr<TileTopology<QuinaryTraits>> const& topology,
                                int3 const& shift) const = 0;
};

/// A grid of a file.
struct VdbContent {
    std::unique_ptr<VdbValues> values;  ///< null for a type that is not read
    AffineMap toWorld{};
};

/// Reads the grid of a section, with its voxels. Fills the inside of a level set if that is
/// missing. Throws FileError.
VdbContent readVdbContent(FileView const& file, std::vector<VdbSection> const& sections,
                          VdbSection const& section);

}  // namespace zel::detail
