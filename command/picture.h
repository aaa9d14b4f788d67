#pragma once

#include <array>
#include <string>

#include <drawing/image.h>

namespace command {

/// Width and height of a text such as "1024x768", or "1024" for both.
std::array<int, 2> parseSize(std::string const& text);

/// Throws std::runtime_error for a name without the suffix .png, unless it is that of a device, a
/// pipe or the standard output, and zel::FileError if the file cannot be made.
void expectPicture(std::string const& path);
/// Writes a .png file.
void writePicture(std::string const& path, drawing::Image const& image);

}  // namespace command
