#include "zel_exchange/image.h"

#include <gmock/gmock.h>

#include <cmath>

#include "exchange/files.h"

// Images in .png files.
using namespace support;
using namespace zel;
using testing::HasSubstr;

namespace {

template <class Sample>
Image<Sample> anyImage(std::mt19937& random, std::size_t width, std::size_t height, int channels) {
    Image<Sample> image{width, height, channels, {}};
    image.samples.resize(width * height * static_cast<std::size_t>(channels));
    for (Sample& sample : image.samples) sample = static_cast<Sample>(random());
    return image;
}

template <class Sample> void expectReadBack(std::mt19937& random) {
    Folder const folder;
    for (int i = 0; i < 12; ++i) {
        auto const image =
            anyImage<Sample>(random, 1 + random() % 70, 1 + random() % 9, i % 2 * 2 + 1);
        writePng(folder / "a.png", image);
        auto const read = std::get<Image<Sample>>(readPng(folder / "a.png"));
        EXPECT_EQ(read.width, image.width);
        EXPECT_EQ(read.height, image.height);
        EXPECT_EQ(read.channels, image.channels);
        EXPECT_EQ(read.samples, image.samples);
    }
    EXPECT_EQ(folder.size(), 1);
}

std::string errorOfImage(std::string const& content, std::size_t most = 1 << 30) {
    return errorOf([&] { readPng(bytesOf(content), "image", most); });
}

}  // namespace

TEST(Image, IsReadBack) {
    std::mt19937 random(4);
    expectReadBack<std::uint8_t>(random);
    expectReadBack<std::uint16_t>(random);
}

TEST(Image, HasTheHighByteFirst) {
    // Two grey pixels, made with zlib alone.
    std::string_view const digits =
        "0000000d494844520000000200000001100000000081d9fc150000000d49444154789c631032597d"
        "1600030c01bf6eb9c65d0000000049454e44ae426082";
    std::string content = "\x89PNG\r\n\x1A\n";
    for (std::size_t i = 0; i < digits.size(); i += 2)
        content += static_cast<char>(std::stoi(std::string(digits.substr(i, 2)), nullptr, 16));
    EXPECT_EQ(std::get<Image16>(readPng(bytesOf(content), "image")).samples,
              (std::vector<std::uint16_t>{0x1234, 0xABCD}));
}

TEST(Image, HasSamplesOfValues) {
    EXPECT_EQ(sampleOf<std::uint8_t>(0.5F), 128);
    EXPECT_EQ(sampleOf<std::uint16_t>(-3, -3, 5), 0);
    EXPECT_EQ(sampleOf<std::uint16_t>(5, -3, 5), 65535);
    EXPECT_EQ(sampleOf<std::uint8_t>(1, 2, 0), 128);
    EXPECT_EQ(sampleOf<std::uint8_t>(-INFINITY, 1, 0), 255);
    for (float const value : {NAN, -INFINITY, -1.0F, -1e38F})
        EXPECT_EQ(sampleOf<std::uint8_t>(value), 0);
    EXPECT_EQ(sampleOf<std::uint16_t>(INFINITY), 65535);
    EXPECT_EQ(sampleOf<std::uint8_t>(3, 3, 3), 0);
}

TEST(Image, RefusesHostileFilesAndMisuse) {
    Folder const folder;
    std::mt19937 random(5);
    writePng(folder / "a.png", anyImage<std::uint16_t>(random, 20, 10, 3));
    std::string const whole = contentOf(folder / "a.png");
    EXPECT_EQ(errorOfImage(whole), "none");
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_THAT(errorOfImage(whole.substr(0, size)), HasSubstr("byte ")) << size;
    for (std::size_t i = 0; i < whole.size(); ++i) {
        std::string damaged = whole;
        damaged[i] = static_cast<char>(damaged[i] ^ 0x20);
        // Each chunk has a checksum. Its length, and names of chunks that may be passed over, do
        // not count.
        EXPECT_NE(errorOfImage(damaged), "none") << i;
    }
    EXPECT_EQ(errorOfImage(whole, 1000),
              "header: an image of 20 x 10 pixels takes more than 1000 bytes");

    // A header of 2^31 - 1 pixels on each side, and one of 10^12 that would fit the memory allowed.
    std::string const begin("\x89PNG\r\n\x1A\n\0\0\0\rIHDR", 16), data("\0\0\0\x0CIDAT", 8);
    std::string const sides("\x7F\xFF\xFF\xFF\x7F\xFF\xFF\xFF\x10\2\0\0\0\xCB\x3B\x40\x72", 17);
    EXPECT_THAT(errorOfImage(begin + sides + data), HasSubstr("takes more than 1073741824 bytes"));
    std::string const grey("\0\x0F\x42\x40\0\x0F\x42\x40\1\0\0\0\0\x74\x16\x05\xD0", 17);
    EXPECT_EQ(
        errorOfImage(begin + grey + data, std::size_t{1} << 50),
        "header: an image of 1000000 x 1000000 pixels takes more than a file of 41 bytes can hold");

    EXPECT_THROW(writePng(folder / "b.png", Image8{2, 2, 1, {1, 2, 3}}), std::invalid_argument);
    EXPECT_THROW(writePng(folder / "b.png", Image8{1, 1, 2, {1, 2}}), std::invalid_argument);
    EXPECT_THROW(writePng(folder / "b.png", Image8{}), std::invalid_argument);
    EXPECT_THAT(errorOf([&] {
                    writePng("/dev/full", Image8{1, 1, 1, {1}});
                }),
                HasSubstr("No space left"));
    EXPECT_EQ(folder.size(), 1);
}
