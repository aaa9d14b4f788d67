#pragma once

#include <array>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "zel/field/scalar_field.h"
#include "zel/field/vector_field.h"
#include "zel_exchange/api.h"
#include "zel_platform/orvane_geometry/object.h"
#include "zel_platform/orvane_geometry/sampler_type.h"

// Reads OpenVDB files into volumes that fields sample.
//
// Files are checked before OpenVDB sees them: the header, all lengths of texts and metadata, the
// places of the grids against the size of the file, and the sizes of all nodes and blocks of
// values. A grid is read within its own part of the file, and only grids of the types below are
// read at all. OpenVDB and the libraries under it still decompress the blocks, and the metadata for
// delayed loading: a block that was forged with consistent sizes is left to the checks of Blosc and
// zlib. A file must not change while it is read.
namespace zel {

using Core::Fields::ScalarField;
using Core::Fields::VectorField;

/// An affine map: row r of the matrix, times (x, y, z, 1), is coordinate r of the result.
using AffineMap = std::array<std::array<double, 4>, 3>;

/// A grid of a file, without its voxels.
struct ZEL_EXCHANGE_API VdbGrid {
    /// The grid's name; grids of the same name are "density[0]", "density[1]" and so on.
    std::string name;
    /// The type of a value, as OpenVDB names it, such as "float", "vec3s", "double" or
    /// "ptdataidx32".
    std::string type;
    bool isHalf = false;      ///< whether the file has halves of a "float", and so on
    bool isReadable = false;  ///< whether readVdb() reads the type
    /// The grid's metadata as text, such as "class", which is "level set" or "fog volume".
    std::map<std::string, std::string> metadata;
    /// From the index space of OpenVDB; empty if it is not affine.
    std::optional<AffineMap> indexToWorld{};
};

/// Lists the grids of a file, in the order of the file. Throws FileError.
ZEL_EXCHANGE_API std::vector<VdbGrid> listVdb(std::filesystem::path const& path);

enum class VdbTree {
    kBinary,   ///< fits the nodes of OpenVDB: no voxel is stored twice, and reading is faster
    kQuinary,  ///< for use with other volumes of this kind
};

struct ReadVdbOptions {
    VdbTree tree = VdbTree::kBinary;
    /// The number of tiles at which reading gives up. The default takes about 10 GB for floats. A
    /// small file may describe a tree of any size, such as by constant regions that differ.
    long long maxTiles = 1LL << 25;
    bool parallel = true;  ///< false: on the calling thread alone
};

/// Grids of one file over one tile tree. Copies share it.
///
/// The samples are the values of OpenVDB's voxels, which stand at whole numbers of its index space;
/// a linear field interpolates them as openvdb::tools::BoxSampler does, everywhere: the tree has
/// tiles of the finest depth around each change of the values, and coarse tiles in constant
/// regions. The background is the default value.
///
/// The voxels of a volume are cubes along the axes. If those of the file are too, and if its origin
/// is a whole number of voxels away, the volume lies where the file has it. Otherwise place() puts
/// a field on the volume there.
struct ZEL_EXCHANGE_API VdbVolume {
    using SamplerType = Orvane::Geometry::Query::SamplerType;
    using ScalarPtr = Quern::Ptr<ScalarField>;
    using VectorPtr = Quern::Ptr<VectorField>;

    /// Has the volume, with a channel for each grid, named like it. The channel of a grid without a
    /// name is "unnamed".
    Orvane::Object object;
    std::vector<VdbGrid> grids;  ///< in the order that was asked for
    AffineMap worldToVolume{};   ///< the identity if the volume lies where the file has it
    AffineMap worldToIndex{};    ///< the map of the file, to the index space of OpenVDB

    /// Whether the volume lies where the file has it.
    bool isPlaced() const;
    /// A field on the volume, such as a leaf bound to `object`, moved to its place in the file. The
    /// values of a vector field are not turned or stretched. Returns `field` if isPlaced().
    ScalarPtr place(ScalarPtr field) const;
    VectorPtr place(VectorPtr field) const;

    /// A leaf that is bound to a channel, in its place. Throws std::invalid_argument, with the
    /// names of the channels, if there is none of this name and type.
    ScalarPtr scalar(std::string const& name, SamplerType sampler = SamplerType::kLinear) const;
    VectorPtr vector(std::string const& name, SamplerType sampler = SamplerType::kLinear) const;
};

/// Reads grids of a file over one tree, which is fine where one of them needs it. Of several grids
/// of one name, the name alone is that of the first. Values of `float` and `double`, and vectors of
/// three of these, are read, halves among them.
///
/// If a level set has no negative value outside its active voxels, its inside is filled as
/// openvdb::tools::signedFloodFill does.
///
/// Throws FileError, with the name of the grid, if the file cannot be opened, is damaged, has no
/// such grid or one of another type; for a value that is not finite or too large for a float; for
/// voxels outside the tree, which reaches 2^29 voxels from the origin; for a transform that is not
/// affine, by its name, or that cannot be inverted; for grids whose transforms differ; and for more
/// than `maxTiles` tiles.
ZEL_EXCHANGE_API VdbVolume readVdbGrids(std::filesystem::path const& path,
                                        std::vector<std::string> const& gridNames,
                                        ReadVdbOptions const& options = {});
/// Reads one grid, as readVdbGrids() does.
ZEL_EXCHANGE_API VdbVolume readVdb(std::filesystem::path const& path, std::string const& gridName,
                                   ReadVdbOptions const& options = {});

}  // namespace zel
