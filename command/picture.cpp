#include "picture.h"

#include <charconv>
#include <stdexcept>
#include <system_error>

#include <zel_exchange/image.h>
#include <zel_exchange/output_file.h>

#include "session.h"

namespace command {

std::array<int, 2> parseSize(std::string const& text) {
    constexpr int kMost = 1 << 14;
    std::array<int, 2> size{};
    char const* const end = text.data() + text.size();
    auto const first = std::from_chars(text.data(), end, size[0]);
    auto rest = first;
    if (first.ptr == end) {
        size[1] = size[0];
    } else if (*first.ptr == 'x') {
        rest = std::from_chars(first.ptr + 1, end, size[1]);
    }
    if (first.ec != std::errc() || rest.ec != std::errc() || rest.ptr != end || size[0] < 1 ||
        size[1] < 1 || size[0] > kMost || size[1] > kMost)
        throw std::runtime_error("--size " + text +
                                 ": wanted a size such as 1024 or 1024x768, of 1 to " +
                                 std::to_string(kMost) + " pixels");
    return size;
}

void expectPicture(std::string const& path) {
    if (!zel::OutputFile::isDirect(path)) expectSuffix(path, "a picture", {".png"});
    expectWritable(path);
}

void writePicture(std::string const& path, drawing::Image const& image) {
    zel::writePng(path, zel::Image8{static_cast<std::size_t>(image.width()),
                                    static_cast<std::size_t>(image.height()), 3, image.toBytes()});
}

}  // namespace command
