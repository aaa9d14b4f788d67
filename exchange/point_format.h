#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "byte_source.h"

namespace zel::detail {

/// The floats to which a column is read: every `stride`-th from `first` on, or nowhere.
struct ColumnTarget {
    float* first = nullptr;
    std::size_t stride = 1;

    void set(std::size_t row, float value) const {
        if (first != nullptr) first[row * stride] = value;
    }
};

/// A file as rows of numbers. Each format of points has a class of its own.
class RowReader {
public:
    RowReader() = default;
    RowReader(RowReader const&) = delete;
    RowReader& operator=(RowReader const&) = delete;
    virtual ~RowReader() = default;

    /// Reads at most `most` rows, a target for each column. Returns fewer only at the end. Throws
    /// FileError.
    virtual std::size_t read(std::span<ColumnTarget const> targets, std::size_t most) = 0;
    /// Passes over at most `most` rows. Returns fewer only at the end. Throws FileError.
    virtual std::size_t skipRows(std::size_t most) {
        return read(std::vector<ColumnTarget>(columns.size()), most);
    }

    std::vector<std::string> columns;
    std::optional<std::uint64_t> count;  // of rows, if the file tells
};

/// The most columns that a file may have: each takes memory in every chunk.
constexpr std::size_t kMostColumns = 256;

std::unique_ptr<RowReader> readTable(ByteReader source);
std::unique_ptr<RowReader> readPly(ByteReader source);

}  // namespace zel::detail
