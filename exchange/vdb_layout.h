#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "affine_map.h"

// The parts of an OpenVDB file that come before voxels, read without OpenVDB, which trusts the
// lengths in a file and allocates by them.
namespace zel::detail {

/// A file in memory, which must not be truncated meanwhile.
class FileView {
public:
    /// Throws FileError.
    explicit FileView(std::filesystem::path const& path);
    FileView(FileView const&) = delete;
    FileView& operator=(FileView const&) = delete;
    ~FileView();

    std::string const& name() const { return m_name; }
    std::span<char const> bytes() const { return m_bytes; }

private:
    std::string m_name;
    std::span<char const> m_bytes;
};

/// An entry of metadata: the name of its type, and its bytes.
struct VdbEntry {
    std::string type;
    std::string_view bytes;

    /// The value as text; the type in brackets if it is of no simple type.
    std::string text() const;
};
using VdbMetadata = std::map<std::string, VdbEntry>;

/// Where a grid lies in a file.
struct VdbSection {
    std::string name;    ///< as a caller gives it
    std::string type;    ///< of the values, such as "vec3s"
    std::string tree;    ///< the type of the tree, such as "Tree_vec3s_5_4_3"
    std::string shares;  ///< the name of the grid whose tree this one has too, or empty
    bool isHalf = false;
    std::int64_t descriptor = 0;  ///< where the description begins
    std::int64_t grid = 0;        ///< where the grid begins
    std::int64_t end = 0;
    VdbMetadata metadata;
    std::string transform;          ///< the type of the map, such as "UniformScaleMap"
    std::uint32_t compression = 0;  ///< flags of OpenVDB
    /// Where the tree begins, after the transform; 0 if that is not affine.
    std::int64_t nodes = 0;
    std::optional<AffineMap> indexToWorld{};  ///< the transform, if it is affine
};

/// The sections of the grids of a file, in its order. Throws FileError for a file that is no
/// OpenVDB file, that was written before version 222 of the format or after version 224, or whose
/// sections or metadata exceed the file.
std::vector<VdbSection> vdbSections(FileView const& file);

/// Checks the nodes of a grid of scalars or of vectors of three, which has its own tree: that they
/// and all blocks of values have the sizes that OpenVDB expects. Throws FileError.
void checkVdbTree(FileView const& file, VdbSection const& section);

/// What stands before the block of values of a node, by the byte that begins it. Inactive values
/// are the background, or minus it, or up to two others; a mask chooses between two of these.
struct VdbValuesKind {
    enum Number : std::int8_t {
        kBackground,
        kMinusBackground,
        kOther,
        kBothBackgrounds,
        kBackgroundAndOther,
        kTwoOthers,
        kAllValues,  ///< the block has the inactive values, too
        kCount
    };

    std::size_t others;
    bool hasMask;

    /// The bytes between the byte of the kind and the block.
    std::size_t bytes(std::size_t value, std::size_t mask) const {
        return others * value + (hasMask ? mask : 0);
    }
};
/// By Number.
constexpr std::array<VdbValuesKind, VdbValuesKind::kCount> kVdbValuesKinds{
    {{0, false}, {0, false}, {1, false}, {0, true}, {1, true}, {2, true}, {0, false}}};

/// The place of a grid in an error.
std::string gridPlace(std::string const& name);

/// The name of the channel for a grid, whose name may be empty.
std::string channelName(std::string const& gridName);

}  // namespace zel::detail
