#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "zel_exchange/api.h"
#include "zel_exchange/error.h"
#include "zel_platform/orvane_geometry/object.h"
#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

// Points in files, read and written in chunks: .npy, .ply, and tables of text. docs/files.md
// describes the formats and the names of columns.
namespace zel {

/// Points of a file, and the room to read more of them. The arrays keep their size, so that a tree
/// may stay bound to them while one chunk after the other is read into them.
struct PointChunk {
    /// A number, or a vector, for each point: one of the two is null.
    struct Property {
        std::string name;
        Quern::Ptr<Quern::Array<float>> scalars;
        Quern::Ptr<Quern::Array<Orvane::Math::float3>> vectors;
    };

    std::uint64_t first = 0;  ///< the index in the file of the first point
    std::size_t count = 0;    ///< how many elements of each array are points
    Quern::Ptr<Quern::Array<Orvane::Math::float3>> positions;
    std::vector<Property> properties;

    std::span<Orvane::Math::float3 const> points() const {
        return {positions ? positions->data() : nullptr, count};
    }
};

/// An object that has the chunk's properties under their names, and shares its arrays: trees bound
/// to it read the points that are in the chunk when they are evaluated, by the index in the chunk.
/// Default values are 0.
ZEL_EXCHANGE_API Orvane::Object objectOf(PointChunk const& chunk);

/// Reads positions and their properties, a chunk at a time, in memory that does not depend on their
/// number.
///
/// The content decides on the format. A .npy file holds positions: see NpyArray. A .ply file and a
/// table have a column for each coordinate, x, y and z, and columns with other names. Each of
/// these is a property. Three columns of which the names differ in a last x, y and z are moreover
/// one property that is a vector, of the name before that letter: "velocity" for "velocity_x",
/// "velocity.x" or "velocityx" and so on. Those of nx, ny and nz are "normal", and those of red,
/// green and blue, or r, g and b, are "color". A column of the same name has precedence.
///
/// Numbers become the nearest floats. NaN and infinities are numbers like others, in text the words
/// nan and inf. One thread at a time may use a reader.
class ZEL_EXCHANGE_API PointReader {
public:
    /// Opens a file; "-" is the standard input. Throws FileError if it is not a file of points.
    /// A .npy file must be a regular file.
    explicit PointReader(std::filesystem::path const& path);
    /// Bytes in memory, which must outlive the reader; `name` stands for the file in errors.
    PointReader(std::span<std::byte const> memory, std::string const& name);
    PointReader(PointReader&&) noexcept;
    PointReader& operator=(PointReader&&) noexcept;
    ~PointReader();

    /// How many points the file has, as far as it tells: a table does not.
    std::optional<std::uint64_t> count() const;
    /// The names of the properties: numbers first, in the order of the file, then vectors.
    std::vector<std::string> propertyNames() const;

    /// Room for at most `size` points.
    PointChunk makeChunk(std::size_t size = std::size_t{1} << 16) const;
    /// Reads the next points into a chunk that makeChunk() made: as many as it has room for, or
    /// fewer at the end. Returns false if there are none. Throws FileError for anything that is not
    /// a point; the chunk is then empty, and the reader must not be used again. Throws
    /// std::invalid_argument for a chunk of another reader.
    bool read(PointChunk& chunk);
    /// Passes over the next points, in a .npy file without reading them. Returns fewer than `count`
    /// only at the end. Throws FileError.
    std::uint64_t skip(std::uint64_t count);

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// A column of results, as long as the positions: numbers, vectors, or the gradients of vectors, in
/// a vector, an array or a span.
struct PointData {
    template <std::convertible_to<std::span<float const>> Numbers>
    PointData(Numbers const& numbers)
        : PointData(std::span<float const>(numbers).data(), numbers, 1) {}
    template <std::convertible_to<std::span<Orvane::Math::float3 const>> Vectors>
    PointData(Vectors const& vectors)
        : PointData(std::span<Orvane::Math::float3 const>(vectors).data(), vectors, 3) {}
    template <std::convertible_to<std::span<Orvane::Math::float3x3 const>> Matrices>
    PointData(Matrices const& matrices)
        : PointData(std::span<Orvane::Math::float3x3 const>(matrices).data(), matrices, 9) {}

    void const* first = nullptr;
    std::size_t count = 0;
    int components = 1;  ///< 1, 3 or 9; a matrix is written row by row

private:
    template <class Range>
    PointData(void const* first_, Range const& range, int components_)
        : first(first_), count(static_cast<std::size_t>(range.size())), components(components_) {}
};

enum class PointFormat {
    kNpy,  ///< an array without positions: (n), or (n, k) with the components of all columns
    kCsv,  ///< a header line, then a line a point, with commas
    kPly,  ///< binary, little endian, floats
};

/// The format of the suffix .npy, .csv or .ply, of any case. Throws FileError for another.
ZEL_EXCHANGE_API PointFormat pointFormatOf(std::filesystem::path const& path);

/// Writes positions and columns of results, a chunk at a time. The file appears when it is
/// complete: see OutputFile.
///
///     PointWriter file("out.csv", {{"value", 1}, {"gradient", 3}});
///     file.write(points, {values, gradients});   // any number of times
///     file.commit();
class ZEL_EXCHANGE_API PointWriter {
public:
    struct Column {
        std::string name;
        int components = 1;  ///< 1, 3 or 9
    };

    /// Begins a file in the format of the suffix, or the one that is given. A column of 3
    /// components becomes columns with _x, _y and _z after the name, one of 9 those with _xx, _xy
    /// to _zz. Text has as many digits as it takes to read the same floats back. The count of
    /// points need not be known.
    ///
    /// Throws FileError if the file cannot be made, for one that is a pipe and not .csv, too;
    /// std::invalid_argument for a name that a header cannot hold: it must not be empty, and have
    /// no blanks, commas, semicolons, quotes or control characters.
    PointWriter(std::filesystem::path const& path, std::vector<Column> columns);
    PointWriter(std::filesystem::path const& path, std::vector<Column> columns, PointFormat format);
    PointWriter(PointWriter&&) noexcept;
    PointWriter& operator=(PointWriter&&) noexcept;
    ~PointWriter();

    /// Appends points. Throws FileError if they cannot be written; std::invalid_argument if the
    /// columns are not those of the constructor, or differ in length from the positions.
    void write(std::span<Orvane::Math::float3 const> positions, std::span<PointData const> columns);
    void write(std::span<Orvane::Math::float3 const> positions,
               std::initializer_list<PointData> columns);
    /// Puts the file under its name. Throws FileError.
    void commit();
    /// That of a table or a .ply file: see OutputFile. Empty for a .npy file, and for a file that
    /// is written directly.
    std::filesystem::path temporaryPath() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace zel
