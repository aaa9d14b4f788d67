#include <png.h>

#include <bit>
#include <csetjmp>
#include <exception>

#include "byte_source.h"
#include "image.h"
#include "png_message.h"

namespace zel {

namespace {

/// A reading in progress. libpng leaves by longjmp, so that the functions that call it have no
/// object with a destructor, and exceptions of the source wait here.
struct Reading {
    detail::ByteSource* source;
    std::uint64_t offset = 0;
    std::exception_ptr exception{};
    detail::PngMessage message;
    png_structp png = nullptr;
    png_infop info = nullptr;

    explicit Reading(detail::ByteSource* source_) : source(source_) {}
    Reading(Reading const&) = delete;
    Reading& operator=(Reading const&) = delete;
    ~Reading() { png_destroy_read_struct(&png, &info, nullptr); }
};

/// Returns false at the end, and after an exception, which is kept.
bool readSome(Reading& reading, std::span<std::byte> to) noexcept {
    try {
        std::size_t const count = reading.source->read(to);
        reading.offset += count;
        return count == to.size();
    } catch (...) {
        reading.exception = std::current_exception();
        return false;
    }
}

void readBytes(png_structp png, png_bytep bytes, std::size_t size) {
    auto& reading = *static_cast<Reading*>(png_get_io_ptr(png));
    if (!readSome(reading, std::as_writable_bytes(std::span(bytes, size))))
        png_error(png, "the file ends too early");
}

/// Reads all that is before the pixels. Returns false if libpng failed.
bool readHeader(Reading& reading) {
    reading.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &reading.message,
                                         detail::keepPngMessage, detail::ignorePngWarning);
    if (reading.png == nullptr) return false;
    reading.info = png_create_info_struct(reading.png);
    if (reading.info == nullptr) return false;
    if (setjmp(png_jmpbuf(reading.png)) != 0) return false;
    png_structp png = reading.png;
    png_set_read_fn(png, &reading, readBytes);
    // Texts and profiles are not wanted, and unpacked they may be large.
    png_set_user_limits(png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_set_chunk_malloc_max(png, 1 << 20);
    png_set_keep_unknown_chunks(png, PNG_HANDLE_CHUNK_NEVER, nullptr, 0);
    png_set_crc_action(png, PNG_CRC_ERROR_QUIT, PNG_CRC_ERROR_QUIT);
    png_read_info(png, reading.info);
    return true;
}

/// Sets how pixels are converted. Returns false if libpng failed. It allocates some rows.
bool prepareRows(Reading& reading) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) return false;
    png_structp png = reading.png;
    if (png_get_color_type(png, reading.info) == PNG_COLOR_TYPE_PALETTE)
        png_set_palette_to_rgb(png);
    if (png_get_bit_depth(png, reading.info) < 8) png_set_expand_gray_1_2_4_to_8(png);
    png_set_strip_alpha(png);
    if (std::endian::native == std::endian::little) png_set_swap(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, reading.info);
    return true;
}

bool readRows(Reading& reading, png_bytepp rows) {
    if (setjmp(png_jmpbuf(reading.png)) != 0) return false;
    png_read_image(reading.png, rows);
    png_read_end(reading.png, nullptr);
    return true;
}

[[noreturn]] void fail(Reading const& reading) {
    if (reading.exception) std::rethrow_exception(reading.exception);
    reading.source->fail("byte " + std::to_string(reading.offset),
                         reading.message.text[0] != '\0' ? reading.message.text : "out of memory");
}

template <class Sample> Image<Sample> readImage(Reading& reading, Image<Sample> image) {
    if (!prepareRows(reading)) fail(reading);
    std::size_t const row = image.width * static_cast<std::size_t>(image.channels);
    if (png_get_rowbytes(reading.png, reading.info) != row * sizeof(Sample))
        reading.source->fail("header", "the pixels cannot be converted");
    image.samples.resize(row * image.height);
    std::vector<png_bytep> rows(image.height);
    for (std::size_t y = 0; y < image.height; ++y)
        rows[y] = reinterpret_cast<png_bytep>(image.samples.data() + y * row);
    if (!readRows(reading, rows.data())) fail(reading);
    return image;
}

AnyImage read(detail::ByteSource source, std::size_t mostBytes) {
    Reading reading(&source);
    if (!readHeader(reading)) fail(reading);
    std::uint64_t const width = png_get_image_width(reading.png, reading.info);
    std::uint64_t const height = png_get_image_height(reading.png, reading.info);
    int const channels =
        (png_get_color_type(reading.png, reading.info) & PNG_COLOR_MASK_COLOR) != 0 ? 3 : 1;
    bool const isWide = png_get_bit_depth(reading.png, reading.info) == 16;
    // Two sides below 2^31, and at most 6 bytes a pixel and 8 for the address of a row.
    std::uint64_t const pixel = static_cast<std::uint64_t>(channels) * (isWide ? 2 : 1);
    std::uint64_t const row = width * pixel + sizeof(png_bytep);
    std::string const claim =
        "an image of " + std::to_string(width) + " x " + std::to_string(height) + " pixels takes ";
    if (height > mostBytes / row)
        source.fail("header", claim + "more than " + std::to_string(mostBytes) + " bytes");
    // Compression shortens bytes 1032 times at most, and a pixel that was a bit is at most 3 bytes.
    constexpr std::uint64_t kMostExpansion = 1032 * 24;
    if (source.size() && width * pixel * height / kMostExpansion > *source.size())
        source.fail("header", claim + "more than a file of " + std::to_string(*source.size()) +
                                  " bytes can hold");
    if (isWide) return readImage(reading, Image16{width, height, channels, {}});
    return readImage(reading, Image8{width, height, channels, {}});
}

}  // namespace

AnyImage readPng(std::filesystem::path const& path, std::size_t mostBytes) {
    return read(detail::ByteSource(path), mostBytes);
}
AnyImage readPng(std::span<std::byte const> memory, std::string const& name,
                 std::size_t mostBytes) {
    return read(detail::ByteSource(memory, name), mostBytes);
}

}  // namespace zel
