#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stop_token>
#include <string>
#include <utility>
#include <vector>

#include "zel/volume/build_volume.h"
#include "zel_exchange/vdb.h"

// Writes OpenVDB files of fields and of volumes. A file appears under its name when it is complete.
// Equal grids and metadata make equal bytes: the file's UUID is a hash of them.
namespace zel {

enum class VdbClass {
    kUnknown,
    /// Signed distances, negative inside, in a narrow band around the surface.
    kLevelSet,
    kFogVolume,  ///< densities, 0 outside
    kStaggered,  ///< vectors on the faces of voxels; samples are taken at the voxels like all
                 ///< others
};

/// How a program that moves a grid is to change its vectors.
enum class VdbVectorType {
    kInvariant,
    kCovariant,
    kCovariantNormalize,
    kContravariantRelative,
    kContravariantAbsolute,
};

/// A field, and the grid that is made of it. Exactly one of the two fields must be given.
struct VdbField {
    std::string name;
    VdbVolume::ScalarPtr scalar{};
    VdbVolume::VectorPtr vector{};
    VdbClass gridClass = VdbClass::kUnknown;
    VdbVectorType vectorType = VdbVectorType::kInvariant;
};

struct WriteVdbOptions {
    /// Half the width of the band around a surface, in voxels; dense grids without it.
    std::optional<float> band{};
    bool half = false;  ///< halves in the file in place of floats
    std::string creator = "ZEL";
    std::map<std::string, std::string> metadata{};  ///< of the file
    bool parallel = true;                           ///< as in FillOptions
    std::stop_token stop{};                         ///< as in FillOptions
    /// As in FillOptions, for each field in turn.
    std::function<void(std::size_t done, std::size_t all)> progress{};
};

/// Writes a grid for each field, of the voxels in the box. A voxel's index times `voxelSize` is its
/// position, at which the field is sampled. Positions outside the box by less than 1e-4 of a voxel,
/// or by the rounding of floats, count as in it, so that the faces of a box of a whole number of
/// voxels have voxels.
///
/// Without a band, all voxels of the box are evaluated. They are active, but for zeros in a fog
/// volume; constant regions become tiles.
///
/// With a band, the field of a level set is a signed distance. Voxels with |field| < band *
/// voxelSize are active, all others in the box have the distance of the band with the sign of the
/// field, and the background is that distance. The field of a fog volume is a signed distance, too:
/// the density rises from 0 at the surface to 1 at the depth of the band, and the inside is active
/// tiles of 1, as openvdb::tools::sdfToFogVolume makes them. Other fields are evaluated at the
/// active voxels of the first level set or fog volume, and are 0 elsewhere. Only the band is
/// evaluated at full depth: where it lies is found as in buildVolume(), whose limits hold.
///
/// Throws std::invalid_argument for what buildVolume() refuses, for a `voxelSize` below about
/// 1.5e-5, a box without a voxel, a level set without a band, a band that no field makes, a name
/// that is empty or used twice, metadata without a name, and a field that is missing;
/// std::length_error for an inside of more than a million tiles of 4096^3 voxels;
/// FileError if the file cannot be written, if a value is not finite, or too large for a half, or
/// if a distance is NaN where it is evaluated;
/// Stopped; and exceptions of nodes and of `progress`. A file that had the name before stays as it
/// was then.
ZEL_EXCHANGE_API void writeVdb(std::filesystem::path const& path,
                               std::vector<VdbField> const& fields, Box const& box, float voxelSize,
                               WriteVdbOptions const& options = {});

/// The grids of writeVdb(), made in parts, such as by several processes: each makes some layers of
/// voxels, and one of them adds the others' parts, and writes the file. It has the same bytes,
/// however many parts there are. One thread at a time may use an object.
class ZEL_EXCHANGE_API VdbParts {
public:
    /// Layers begin at multiples of this many voxels.
    static constexpr int kStep = 8;

    /// Throws as writeVdb() does for its arguments.
    VdbParts(std::filesystem::path path, std::vector<VdbField> fields, Box const& box,
             float voxelSize, WriteVdbOptions options = {});
    ~VdbParts();

    /// The indices along x of the first voxel in the box, and of the one after the last.
    std::pair<int, int> range() const;
    /// Whether the box lies near enough to the origin to be made in more than one part: within 2^21
    /// voxels along x.
    bool isDivisible() const;
    /// Makes the grids, of the voxels with indices along x from `first` to `last` - 1: multiples of
    /// kStep, but for the ends of the range. Throws as writeVdb() does.
    void make(int first, int last);
    /// The next piece of the part that was made, of about `bytes`; empty after the last one.
    std::vector<std::byte> take(std::size_t bytes = std::size_t{1} << 22);
    /// Adds a piece of another part, from a process of the same program on such a machine.
    void add(std::span<std::byte const> piece);
    /// Makes the file, under the name that it has until it is complete, which is returned. Throws
    /// FileError.
    std::filesystem::path begin();
    /// Writes the file, and puts it under its name. Throws FileError.
    void write();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Writes back all grids of a volume that was read, in the place and of the class and the vector
/// type that it had. Other metadata of the file and its grids are lost. Voxels whose value is not
/// the background are active; in a level set, those nearer to the surface than the background.
/// Throws FileError as writeVdb() of fields does, and std::invalid_argument for voxels of a volume
/// below 3e-15, which OpenVDB takes for 0.
ZEL_EXCHANGE_API void writeVdb(std::filesystem::path const& path, VdbVolume const& volume,
                               WriteVdbOptions const& options = {});

/// A channel, and the grid that is made of it.
struct VdbChannel {
    std::string name;
    VdbClass gridClass = VdbClass::kUnknown;
    VdbVectorType vectorType = VdbVectorType::kInvariant;
};

/// Writes channels of an object's volume, which must have its samples on the corners of voxels, as
/// grids of the channels' names. The finest tiles are written as they are, and coarse tiles where
/// they are constant; of a level set, coarse tiles have the background with the sign of their
/// samples. The background is the default value. Throws std::invalid_argument, with the name, for
/// channels that are missing or vary in coarse tiles: such a channel may be written as a field.
/// Throws FileError as writeVdb() of fields does.
ZEL_EXCHANGE_API void writeVdb(std::filesystem::path const& path, Orvane::Object const& object,
                               std::vector<VdbChannel> const& channels,
                               WriteVdbOptions const& options = {});

}  // namespace zel
