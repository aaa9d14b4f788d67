#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "zel/field/evaluate.h"
#include "zel_exchange/api.h"
#include "zel_exchange/error.h"
#include "zel_exchange/output_file.h"

// Arrays of floats in .npy files, the format of NumPy.
namespace zel {

/// The numbers of a .npy file, and how they lie in it.
struct ZEL_EXCHANGE_API NpyLayout {
    std::vector<std::uint64_t> shape;  ///< the length of each axis; no axis for a single number
    bool isDouble = false;             ///< numbers of 8 bytes instead of 4
    bool isBigEndian = false;
    /// Whether the first axis runs fastest in the file; otherwise the last does.
    bool isFortran = false;
    std::uint64_t dataOffset = 0;  ///< the bytes before the first number

    /// How many numbers there are: the product of the shape.
    std::uint64_t count() const;
    std::uint64_t bytesPerNumber() const { return isDouble ? 8 : 4; }
};

/// The layout of rows of `width` floats each: of the shape (rows, width), or (rows) for single
/// ones.
inline NpyLayout npyRows(std::uint64_t rows, std::uint64_t width) {
    NpyLayout layout{.shape = {rows, width}};
    if (width == 1) layout.shape.pop_back();
    return layout;
}

/// The bytes of a file before its numbers, in version 1.0 of the format. `layout.dataOffset` is not
/// read; the size of the result is the offset of the numbers, a multiple of 64. `room` is for files
/// that grow: the bytes are as many as for any length of the first axis. Throws
/// std::invalid_argument for more than 32 axes, and if the numbers take more than 2^63 bytes.
ZEL_EXCHANGE_API std::string npyHeader(NpyLayout const& layout, bool room = false);

/// A .npy file of floats or doubles, in either byte order, of version 1.0, 2.0 or 3.0.
///
/// Numbers are read by offset, which takes no memory beyond the caller's, or as views of a mapping
/// of the file. A double becomes the nearest float. NaN and infinities are numbers like others;
/// bytes after the numbers are ignored. Any number of threads may read one array.
class ZEL_EXCHANGE_API NpyArray {
public:
    /// Opens a regular file. Throws FileError, for numbers of another type and for a file that is
    /// shorter than its shape claims, too.
    explicit NpyArray(std::filesystem::path const& path);
    /// Bytes in memory, which must outlive the array; `name` stands for the file in errors.
    NpyArray(std::span<std::byte const> memory, std::string name);
    NpyArray(NpyArray&& other) noexcept;
    NpyArray& operator=(NpyArray&& other) noexcept;
    ~NpyArray();

    NpyLayout const& layout() const;
    /// Whether the array holds positions: its shape is (n, 3), or in C order any whose last axis is
    /// 3, such as that of a box of positions.
    bool isPoints() const;
    /// How many positions there are, or numbers if !isPoints().
    std::uint64_t size() const;

    /// Reads the numbers from `first` on, in the order of the file. Throws FileError if they cannot
    /// be read, std::out_of_range if there are fewer.
    void read(std::uint64_t first, std::span<float> numbers) const;
    /// Reads positions, in the order of the file. Throws std::logic_error if !isPoints(), and as
    /// read() does.
    void readPoints(std::uint64_t first, std::span<Orvane::Math::float3> points) const;

    /// Whether the numbers can be viewed: floats of this machine's byte order, at a multiple of 4.
    bool isViewable() const;
    /// All numbers in the order of the file, as long as the array lives. The file is mapped at the
    /// first call, and must not shrink afterwards: a program that reads beyond its end is killed.
    /// Throws std::logic_error if !isViewable(), FileError if the file cannot be mapped.
    std::span<float const> view() const;
    /// The positions, for evaluate(). Throws as view() does, and std::logic_error if !isPoints().
    PointView viewPoints() const;

private:
    struct State;
    std::unique_ptr<State> m_state;
};

/// Writes a .npy file, which appears when it is complete: see OutputFile. Numbers have this
/// machine's byte order. One thread at a time may use it, but any number may write to the mapping.
///
///     NpyWriter file("box.npy", {.shape = {nx, ny, nz}});
///     std::span<float> const box = file.map();   // or write(), in the order of the file
///     ...
///     file.commit();
class ZEL_EXCHANGE_API NpyWriter {
public:
    /// The length of the first axis of an array that grows by write(): commit() completes it.
    static constexpr std::uint64_t kGrows = ~std::uint64_t{0};

    /// Begins a file of the shape, type and order of `layout`. Throws FileError,
    /// std::invalid_argument for big endian, and as npyHeader() does.
    NpyWriter(std::filesystem::path const& path, NpyLayout const& layout);
    ~NpyWriter();

    /// Appends numbers in the order of the file. Throws FileError, and std::length_error if they
    /// are more than the shape has.
    void write(std::span<float const> numbers);
    void write(std::span<Orvane::Math::float3 const> vectors);
    /// All numbers, as memory: zero at first. Pages that nothing is written to take no room on the
    /// disk. A disk that becomes full kills the program, unless `reserve` is set: the room is then
    /// taken at once, and FileError thrown if there is too little. Throws FileError, and
    /// std::logic_error for doubles, for a file that grows or that write() has begun.
    std::span<float> map(bool reserve = false);
    /// Puts the file under its name. Throws FileError, and std::logic_error if numbers are missing
    /// that neither write() nor map() has given.
    void commit();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

}  // namespace zel
