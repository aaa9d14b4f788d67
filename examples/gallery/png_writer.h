#pragma once

#include <filesystem>

#include "gallery/image.h"

namespace examples {

/// Writes an 8-bit RGB file. Throws std::runtime_error that names the path.
void writePng(std::filesystem::path const& path, Image const& image);

}  // namespace examples
