#pragma once

#include <png.h>

#include <csetjmp>
#include <cstdio>

namespace zel::detail {

/// The text of an error of libpng, kept until the functions are left that have called libpng.
struct PngMessage {
    char text[200] = "";
};

/// Keeps the message in the PngMessage that libpng was given, and leaves by longjmp, which passes
/// over destructors.
[[noreturn]] inline void keepPngMessage(png_structp png, png_const_charp text) {
    auto& message = *static_cast<PngMessage*>(png_get_error_ptr(png));
    std::snprintf(message.text, sizeof message.text, "%s", text);
    png_longjmp(png, 1);
}
inline void ignorePngWarning(png_structp, png_const_charp) {}

}  // namespace zel::detail
