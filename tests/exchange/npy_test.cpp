#include "zel_exchange/npy.h"

#include <gmock/gmock.h>

#include "exchange/files.h"
#include "zel_exchange/points.h"

// Arrays in .npy files. command/results_test.py compares with NumPy itself.
using namespace support;
using namespace zel;
using Orvane::Math::float3;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

std::string errorOfArray(std::string const& content) {
    return errorOf([&] { NpyArray(bytesOf(content), "array"); });
}

/// A file of version 1.0 with this dictionary, and some bytes of numbers.
std::string arrayOf(std::string const& dictionary, std::size_t bytes = 0) {
    auto const size = static_cast<unsigned>(dictionary.size());
    return std::string("\x93NUMPY\1\0", 8) + static_cast<char>(size % 256) +
           static_cast<char>(size / 256) + dictionary + std::string(bytes, '\0');
}
std::string dictionary(std::string const& shape, std::string const& type = "'<f4'",
                       std::string const& order = "False") {
    return "{'descr': " + type + ", 'fortran_order': " + order + ", 'shape': " + shape + ", }";
}

std::vector<float3> pointsOf(NpyArray const& array) {
    std::vector<float3> points(array.size());
    array.readPoints(0, points);
    return points;
}

}  // namespace

TEST(Npy, IsReadBackToTheBit) {
    Folder const folder;
    std::mt19937 random(2);
    for (int i = 0; i < 60; ++i) {
        NpyLayout layout;
        for (auto axes = random() % 5; axes > 0; --axes) layout.shape.push_back(random() % 8);
        layout.isFortran = random() % 2 == 0;
        layout.isDouble = i % 5 == 0;
        auto const numbers = anyFloats(random, layout.count());
        auto const path = folder / "a.npy";
        NpyWriter writer(path, layout);
        if (i % 3 == 0 && !layout.isDouble) {
            std::copy(numbers.begin(), numbers.end(), writer.map(i % 2 == 0).begin());
        } else {
            std::size_t const half = numbers.size() / 2;
            writer.write(std::span(numbers).first(half));
            writer.write(std::span(numbers).subspan(half));
        }
        writer.commit();

        NpyArray const array(path);
        EXPECT_EQ(array.layout().shape, layout.shape);
        EXPECT_EQ(array.layout().isFortran, layout.isFortran);
        EXPECT_EQ(array.layout().dataOffset % 64, 0);
        std::vector<float> read(numbers.size());
        array.read(0, read);
        EXPECT_EQ(bitsOf(read), bitsOf(numbers));
        ASSERT_EQ(array.isViewable(), !layout.isDouble);
        if (!layout.isDouble) {
            EXPECT_EQ(bitsOf(array.view()), bitsOf(numbers));
        }
        std::size_t const tail = numbers.size() / 3;
        read.resize(tail);
        array.read(numbers.size() - tail, read);
        EXPECT_EQ(bitsOf(read), bitsOf(std::span(numbers).last(tail)));
        EXPECT_THROW(array.read(numbers.size() - tail + 1, std::span(read)), std::out_of_range);
    }
}

TEST(Npy, GivesPositionsOfBothOrders) {
    Folder const folder;
    std::mt19937 random(3);
    for (std::size_t const count : {0U, 1U, 10'000U})
        for (int const kind : {0, 1, 2, 3}) {
            bool const isFortran = kind % 2 != 0, isDouble = kind / 2 != 0;
            auto const numbers = anyFloats(random, 3 * count);
            NpyWriter writer(folder / "a.npy",
                             {.shape = {count, 3}, .isDouble = isDouble, .isFortran = isFortran});
            writer.write(numbers);
            writer.commit();
            NpyArray const array(folder / "a.npy");
            PointView const view = isDouble ? PointView{} : array.viewPoints();
            auto const points = pointsOf(array);
            ASSERT_EQ(view.count, isDouble ? 0 : count);
            std::vector<float3> wanted, viewed;
            for (std::size_t i = 0; i < count; ++i) {
                std::size_t const x = isFortran ? i : 3 * i, step = isFortran ? count : 1;
                wanted.push_back({numbers[x], numbers[x + step], numbers[x + 2 * step]});
                auto const at = static_cast<std::ptrdiff_t>(i) * view.stride;
                if (!isDouble) viewed.push_back({view.x[at], view.y[at], view.z[at]});
            }
            EXPECT_EQ(bitsOf(points), bitsOf(wanted));
            if (!isDouble) {
                EXPECT_EQ(bitsOf(viewed), bitsOf(wanted));
            }
            PointReader reader(folder / "a.npy");
            EXPECT_EQ(reader.count(), count);
            PointChunk chunk = reader.makeChunk(count + 1);
            EXPECT_EQ(reader.read(chunk), count > 0);
            EXPECT_EQ(chunk.count, count);
        }
}

TEST(Npy, GrowsAndHasHugeShapes) {
    Folder const folder;
    NpyWriter grows(folder / "a.npy", {.shape = {NpyWriter::kGrows, 2}});
    for (int i = 0; i < 6; ++i) grows.write(std::vector<float>{1, 2, 3, 4, 5, 6});
    grows.commit();
    EXPECT_EQ(NpyArray(folder / "a.npy").layout().shape, (std::vector<std::uint64_t>{18, 2}));

    // Above 4 GB, in a sparse file.
    std::uint64_t const count = (std::uint64_t{1} << 30) + 5;
    NpyWriter huge(folder / "b.npy", {.shape = {count}});
    huge.map().back() = 7;
    huge.commit();
    NpyArray const array(folder / "b.npy");
    std::vector<float> last(2);
    array.read(count - 2, last);
    EXPECT_EQ(last, (std::vector<float>{0, 7}));
    EXPECT_EQ(array.view().back(), 7);
}

TEST(Npy, WriterRefusesMisuseAndLeavesNoFile) {
    Folder const folder;
    auto const path = folder / "a.npy";
    {
        NpyWriter writer(path, {.shape = {3}});
        writer.write(std::vector<float>{1, 2});
        EXPECT_THROW(writer.map(), std::logic_error);
        EXPECT_THROW(writer.commit(), std::logic_error);
        EXPECT_THROW(writer.write(std::vector<float>{1, 2}), std::length_error);
    }
    EXPECT_THROW(NpyWriter(path, {.shape = {1ULL << 40, 1ULL << 40}}), std::invalid_argument);
    EXPECT_THROW(NpyWriter(path, {.shape = std::vector<std::uint64_t>(33, 1)}),
                 std::invalid_argument);
    EXPECT_THROW(NpyWriter(path, {.shape = {3}, .isBigEndian = true}), std::invalid_argument);
    EXPECT_THROW(NpyWriter(path, {.shape = {NpyWriter::kGrows, 3}, .isFortran = true}),
                 std::invalid_argument);
    EXPECT_THAT(errorOf([&] { NpyWriter(folder / "no" / "a.npy", {.shape = {3}}); }),
                HasSubstr("cannot be written: No such file"));
    EXPECT_THAT(errorOf([&] { NpyWriter(folder / "a.npy", {.shape = {1ULL << 60}}).map(true); }),
                HasSubstr("cannot be mapped"));
    EXPECT_EQ(folder.size(), 0);
}

TEST(Npy, RefusesHostileFiles) {
    std::string const whole = arrayOf(dictionary("(2, 3)"), 24);
    EXPECT_EQ(errorOfArray(whole), "none");
    for (std::size_t size = 0; size < whole.size(); ++size)
        EXPECT_NE(errorOfArray(whole.substr(0, size)), "none") << size;
    std::string version = whole;
    version[6] = 4;
    EXPECT_THAT(errorOfArray(version), StartsWith("byte 6: version 4.0"));

    for (char const* const shape :
         {"()", "(0,)", "(6, )", "( 1 ,2, 3 )", "(0, 9223372036854775807)"})
        EXPECT_EQ(errorOfArray(arrayOf(dictionary(shape), 24)), "none") << shape;
    for (char const* const shape :
         {"", "(", "(3", "(3)", "(,)", "(-1,)", "(1.5,)", "(1, 2,, 3)", "(18446744073709551616,)",
          "(9223372036854775808, 0)", "[2, 3]", "(2, 3)) ", "(0x2,)", "(1L,)", "(True,)"})
        EXPECT_THAT(errorOfArray(arrayOf(dictionary(shape), 24)), StartsWith("header: ")) << shape;
    EXPECT_EQ(errorOfArray(arrayOf(dictionary("(1000000000000000000, 3)"), 24)),
              "header: the shape (1000000000000000000, 3) is too large");
    EXPECT_EQ(errorOfArray(arrayOf(dictionary("(100000000000000, 3)"), 24)),
              "header: the shape (100000000000000, 3) takes 1200000000000000 bytes, and the file "
              "has 24");
    std::string axes;
    for (int i = 0; i < 33; ++i) axes += "1,";
    EXPECT_THAT(errorOfArray(arrayOf(dictionary("(" + axes + ")"), 24)), HasSubstr("32 axes"));

    for (char const* const type : {"'<i4'", "'<f2'", "'|O'", "'<c8'", "'|f4'", "'f4'", "'<f4 '",
                                   "''", "f4", "'<f4", "[('x', '<f4')]", "None"})
        EXPECT_THAT(errorOfArray(arrayOf(dictionary("(2,)", type), 24)), StartsWith("header: "))
            << type;
    for (char const* const order : {"", "0", "'False'", "Falsetrue", "true"})
        EXPECT_THAT(errorOfArray(arrayOf(dictionary("(2,)", "'<f4'", order), 24)),
                    StartsWith("header: "))
            << order;
    for (char const* const text :
         {"", "{}", "{'descr': '<f4'}", "{'descr': '<f4', 'descr': '<f4', }", "[]",
          "{'a': __import__('os')}", "{'descr': '<f4', 'fortran_order': False, 'shape': (1,)} + {}",
          "{'descr': '<f4', 'fortran_order': False 'shape': (1,)}"})
        EXPECT_THAT(errorOfArray(arrayOf(text, 24)), StartsWith("header: ")) << text;
    std::string const padded = arrayOf(dictionary("(2,)") + std::string(5000, ' '), 24);
    EXPECT_EQ(errorOfArray(padded), "none");
    EXPECT_THAT(errorOfArray(std::string("\x93NUMPY\2\0\xFF\xFF\xFF\x7F", 12) + "{"),
                StartsWith("byte 8: the header is 2147483647 bytes long"));

    std::string const odd =
        arrayOf(dictionary("(2, 3)") + std::string(1 + whole.size() % 2, ' '), 24);
    NpyArray const array(bytesOf(odd), "odd");
    EXPECT_EQ(pointsOf(array).size(), 2);
    EXPECT_THROW(NpyArray(bytesOf(padded), "a").viewPoints(), std::logic_error);
    EXPECT_THAT(errorOf([] { NpyArray("/dev/null"); }), HasSubstr("must be a regular file"));
    EXPECT_THAT(errorOf([] { NpyArray("/no/such"); }), HasSubstr("cannot be opened: No such file"));
    EXPECT_THAT(errorOf([&] { PointReader(bytesOf(padded), "a"); }),
                HasSubstr("the shape is (2,); positions have the shape (n, 3)"));
}
