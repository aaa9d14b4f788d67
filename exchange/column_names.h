#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zel::detail {

/// Three columns, by their numbers, that are the components of a vector.
struct VectorColumns {
    std::string name;
    std::array<std::size_t, 3> columns;
};

/// The columns of the coordinates: x, y and z, or X, Y and Z. Those that are missing are
/// `names.size()`.
std::array<std::size_t, 3> positionColumns(std::span<std::string const> names);

/// The vectors among columns: see PointReader.
std::vector<VectorColumns> vectorColumns(std::span<std::string const> names);

}  // namespace zel::detail
