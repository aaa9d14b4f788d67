#pragma once

#include <openvdb/openvdb.h>

#include <cmath>
#include <deque>
#include <filesystem>
#include <optional>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "affine_map.h"
#include "error.h"
#include "output_file.h"
#include "vdb_leaves.h"
#include "vdb_write.h"

// What the writers of fields and of volumes share.
namespace zel::detail {

template <class T>
using GridOf = std::conditional_t<std::is_same_v<T, float>, openvdb::FloatGrid, openvdb::Vec3SGrid>;

/// Throws std::invalid_argument with the function's name before the message.
[[noreturn]] void refuseVdb(std::string const& message);

/// Refuses grids (with a member `name`) without a name, and two of the same name.
template <class Name> void checkNames(std::vector<Name> const& grids) {
    std::set<std::string> names;
    if (grids.empty()) refuseVdb("nothing to write");
    for (auto const& grid : grids) {
        // OpenVDB tells grids of one name apart by this character and a number behind it.
        if (grid.name.find('\x1e') != grid.name.npos)
            refuseVdb("the name " + detail::quoted(grid.name) + " has the character 0x1e");
        if (grid.name.empty() || !names.insert(grid.name).second)
            refuseVdb("the name " + detail::quoted(grid.name) +
                      (grid.name.empty() ? " is empty" : " is used twice"));
    }
}

/// A file of OpenVDB and the grids that are to be written to it.
class VdbOutput {
public:
    /// Keeps references to both.
    VdbOutput(std::filesystem::path const& path, WriteVdbOptions const& options);

    WriteVdbOptions const& options() const { return m_options; }
    openvdb::GridPtrVec const& grids() const { return m_grids; }
    /// The leaves of the grids that have been compressed.
    std::deque<VdbLeaves>& leaves() { return m_leaves; }
    void clear() {
        m_grids.clear();
        m_leaves.clear();
    }

    /// Throws FileError for a value that the file cannot hold: of a voxel, or the background.
    void check(std::string const& name, std::optional<openvdb::Coord> const& at,
               float value) const {
        if (!fits(value)) refuseValue(name, at, value);
    }
    void check(std::string const& name, std::optional<openvdb::Coord> const& at,
               float3 const& value) const {
        for (int i = 0; i < 3; ++i) check(name, at, value[i]);
    }

    void add(std::string const& name, openvdb::GridBase::Ptr const& grid, VdbClass gridClass,
             VdbVectorType vectorType);

    /// Compresses the leaves of all grids.
    void compress();
    /// Creates the temporary file, and returns its path.
    std::filesystem::path begin();
    /// Writes all grids and gives the file its name.
    void write();

private:
    bool fits(float value) const {
        constexpr float kMostHalf = 65504;
        return std::isfinite(value) && (!m_options.half || std::abs(value) <= kMostHalf);
    }
    [[noreturn]] void refuseValue(std::string const& name, std::optional<openvdb::Coord> const& at,
                                  float value) const;
    void checkComplete() const;

    std::filesystem::path const& m_path;
    WriteVdbOptions const& m_options;
    openvdb::GridPtrVec m_grids{};
    std::deque<VdbLeaves> m_leaves{};
    std::optional<OutputFile> m_file{};
};

/// The transform of a grid from its indices to the world.
openvdb::math::Transform::Ptr vdbTransform(std::string const& name, AffineMap const& toWorld);

}  // namespace zel::detail
