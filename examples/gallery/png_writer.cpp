#include "gallery/png_writer.h"

#include <png.h>

#include <cstring>
#include <stdexcept>

namespace examples {

void writePng(std::filesystem::path const& path, drawing::Image const& image) {
    png_image header;
    std::memset(&header, 0, sizeof header);
    header.version = PNG_IMAGE_VERSION;
    header.width = static_cast<png_uint_32>(image.width());
    header.height = static_cast<png_uint_32>(image.height());
    header.format = PNG_FORMAT_RGB;
    std::vector<std::uint8_t> const bytes = image.toBytes();
    if (!png_image_write_to_file(&header, path.c_str(), 0, bytes.data(), 0, nullptr))
        throw std::runtime_error("cannot write " + path.string() + ": " + header.message);
}

}  // namespace examples
