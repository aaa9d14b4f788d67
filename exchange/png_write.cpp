#include <png.h>

#include <bit>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <system_error>

#include "image.h"
#include "output_file.h"
#include "png_message.h"

namespace zel {

namespace {

/// libpng leaves by longjmp, which passes over no destructor here: functions that call it have none
/// but those of arguments. The message is kept in the meantime.
struct Writing {
    OutputFile* file = nullptr;
    detail::PngMessage message;
    int diskError = 0;
};

void writeBytes(png_structp png, png_bytep bytes, std::size_t size) {
    auto& writing = *static_cast<Writing*>(png_get_io_ptr(png));
    if (std::fwrite(bytes, 1, size, writing.file->stream()) == size) return;
    writing.diskError = errno;
    png_error(png, "cannot be written");
}
void flush(png_structp) {}

/// Returns false, with a message, if libpng failed. Nothing here has a destructor.
template <class Sample> bool writeImage(Writing& writing, Image<Sample> const& image) {
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &writing.message,
                                              detail::keepPngMessage, detail::ignorePngWarning);
    png_infop info = png == nullptr ? nullptr : png_create_info_struct(png);
    if (info == nullptr) {
        png_destroy_write_struct(&png, nullptr);
        return false;
    }
    if (setjmp(png_jmpbuf(png)) != 0) {
        png_destroy_write_struct(&png, &info);
        return false;
    }
    png_set_write_fn(png, &writing, writeBytes, flush);
    png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_set_IHDR(png, info, static_cast<png_uint_32>(image.width),
                 static_cast<png_uint_32>(image.height), 8 * sizeof(Sample),
                 image.channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    // The format has the high byte first.
    if (sizeof(Sample) == 2 && std::endian::native == std::endian::little) png_set_swap(png);
    std::size_t const row = image.width * static_cast<std::size_t>(image.channels);
    for (std::size_t y = 0; y < image.height; ++y)
        png_write_row(png, reinterpret_cast<png_const_bytep>(image.samples.data() + y * row));
    png_write_end(png, info);
    png_destroy_write_struct(&png, &info);
    return true;
}

template <class Sample> void write(std::filesystem::path const& path, Image<Sample> const& image) {
    constexpr std::size_t kLongestSide = 0x7FFFFFFF;
    bool const fits = 0 < image.width && image.width <= kLongestSide && 0 < image.height &&
                      image.height <= kLongestSide && (image.channels == 1 || image.channels == 3);
    // The product of two sides and 3 is below 2^64.
    if (!fits || image.samples.size() !=
                     image.width * image.height * static_cast<std::size_t>(image.channels))
        throw std::invalid_argument("zel::writePng: an image of " + std::to_string(image.width) +
                                    " x " + std::to_string(image.height) + " pixels of " +
                                    std::to_string(image.channels) + " channels has " +
                                    std::to_string(image.samples.size()) + " samples");
    OutputFile file(path);
    Writing writing;
    writing.file = &file;
    if (!writeImage(writing, image)) {
        std::string message = writing.message.text;
        if (writing.diskError != 0)
            message += ": " + std::generic_category().message(writing.diskError);
        throw FileError(file.name(), {}, message);
    }
    file.commit();
}

}  // namespace

void writePng(std::filesystem::path const& path, Image8 const& image) {
    write(path, image);
}
void writePng(std::filesystem::path const& path, Image16 const& image) {
    write(path, image);
}

}  // namespace zel
