#pragma once

#include <filesystem>

#include "drawing/image.h"

namespace examples {

/// Writes an 8-bit RGB file. Throws std::runtime_error that names the path.
void writePng(std::filesystem::path const& path, drawing::Image const& image);

}  // namespace examples
