#pragma once

#include <span>
#include <string>
#include <vector>

#include "byte_source.h"
#include "npy.h"

namespace zel::detail {

/// A shape as Python writes it, such as "(2, 3)".
std::string shapeText(std::vector<std::uint64_t> const& shape);

/// Whether a file with this begin is a .npy file.
bool isNpy(std::span<std::byte const> begin);

/// Reads the layout of a source that has a size, and that is as long as the layout claims. Throws
/// FileError.
NpyLayout readNpyHeader(ByteSource const& source);

}  // namespace zel::detail
