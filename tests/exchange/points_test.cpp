#include "zel_exchange/points.h"

#include <gmock/gmock.h>

#include <cmath>

#include "exchange/files.h"
#include "zel_exchange/npy.h"

// Points in files: what is written is read back to the bit, and what others write is read or
// refused.
using namespace support;
using namespace zel;
using Orvane::Math::float3;
using Orvane::Math::float3x3;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

struct Points {
    std::vector<std::string> names;
    std::vector<float3> positions;
    std::vector<std::vector<float>> properties;  // of each name
};

Points readAll(PointReader& reader, std::size_t size = 7) {
    Points all{.names = reader.propertyNames(), .positions = {}, .properties = {}};
    PointChunk chunk = reader.makeChunk(size);
    all.properties.resize(chunk.properties.size());
    while (reader.read(chunk)) {
        EXPECT_EQ(chunk.first, all.positions.size());
        all.positions.insert(all.positions.end(), chunk.points().begin(), chunk.points().end());
        for (std::size_t i = 0; i < chunk.properties.size(); ++i) {
            auto const& [name, scalars, vectors] = chunk.properties[i];
            auto const from = scalars ? std::span<float const>(scalars->data(), chunk.count)
                                      : floatsOf({vectors->data(), chunk.count});
            all.properties[i].insert(all.properties[i].end(), from.begin(), from.end());
        }
    }
    return all;
}
Points readText(std::string_view text) {
    PointReader reader(bytesOf(text), "text");
    return readAll(reader);
}
std::string errorOfText(std::string_view text) {
    return errorOf([&] { readText(text); });
}

std::vector<float3> anyVectors(std::mt19937& random, std::size_t count) {
    std::vector<float3> vectors(count);
    for (float3& v : vectors) v = {anyFloat(random), anyFloat(random), anyFloat(random)};
    return vectors;
}

}  // namespace

TEST(Points, AreReadBackToTheBit) {
    Folder const folder;
    std::mt19937 random(1);
    for (std::size_t const count : {0U, 1U, 6U, 7U, 1024U, 2500U})
        for (char const* const name : {"a.csv", "a.ply"}) {
            SCOPED_TRACE(std::string(name) + " of " + std::to_string(count));
            auto const positions = anyVectors(random, count), vectors = anyVectors(random, count);
            auto const values = anyFloats(random, count);
            std::vector<float3x3> matrices(count);
            for (float3x3& m : matrices)
                for (float3& row : m.rows) row = anyVectors(random, 1)[0];
            PointWriter writer(folder / name, {{"value", 1}, {"gradient", 3}, {"m", 9}});
            std::size_t const half = count / 2;
            writer.write(std::span(positions).first(half),
                         {std::span(values).first(half), std::span(vectors).first(half),
                          std::span(matrices).first(half)});
            EXPECT_FALSE(std::filesystem::exists(folder / name));
            writer.write(std::span(positions).subspan(half),
                         {std::span(values).subspan(half), std::span(vectors).subspan(half),
                          std::span(matrices).subspan(half)});
            writer.commit();

            PointReader reader(folder / name);
            bool const isPly = std::string_view(name) == "a.ply";
            EXPECT_EQ(reader.count(), isPly ? std::optional(std::uint64_t{count}) : std::nullopt);
            Points const points = readAll(reader);
            EXPECT_EQ(bitsOf(points.positions), bitsOf(positions));
            EXPECT_EQ(bitsOf(points.properties[0]), bitsOf(values));
            ASSERT_EQ(points.names.size(), 13 + 4);
            EXPECT_EQ(points.names[13], "gradient");
            EXPECT_EQ(bitsOf(points.properties[13]), bitsOf(vectors));
            for (std::size_t i = 0; i < count; ++i)
                EXPECT_EQ(std::bit_cast<std::uint32_t>(points.properties[16][3 * i + 1]),
                          std::bit_cast<std::uint32_t>(matrices[i][2].y));
            std::filesystem::remove(folder / name);
        }
    EXPECT_EQ(folder.size(), 0);
}

TEST(Points, OfTablesHaveNamesAndSeparators) {
    std::vector<float3> const wanted{{1, -2.5F, 3}, {4, 5, 1e-3F}};
    for (char const* const text :
         {"1 -2.5 3\n4 5 1e-3", "x,y,z\r\n1,-2.5,3\r\n4,5,1e-3\r\n",
          "\xEF\xBB\xBFX;Y;Z\n1;-2.5;3\n\n4;5;1e-3", "# x y\n\n  1\t -2.5  +3 \n # 2\n4 5 1e-3\n\n",
          "x\ty\tz\n1\t-2.5\t3\n4\t5\t1e-3", "\"x\", \"y\" ,z\n\"1\" , -2.5, 3\n4,5 ,\"1e-3\"",
          "\"x\" \"y\" \"z\"\n1 \"-2.5\" 3\n4 5 1e-3", "1, -2.5, 3\n4, 5, 1e-3\n"}) {
        Points const points = readText(text);
        EXPECT_EQ(points.positions, wanted) << text;
        EXPECT_TRUE(points.names.empty()) << text;
    }

    Points const points = readText("a b,nx,z,v_x,\"q\"\"t\",ny,y,x,nz,v_z,v_y,\n"
                                   "1,2,3,4,5,6,7,8,9,10,11,anything\n");
    EXPECT_EQ(points.positions, (std::vector<float3>{{8, 7, 3}}));
    EXPECT_THAT(points.names,
                ElementsAre("a b", "nx", "v_x", "q\"t", "ny", "nz", "v_z", "v_y", "normal", "v"));
    EXPECT_EQ(points.properties[3], std::vector<float>{5});
    EXPECT_EQ(points.properties[8], (std::vector<float>{2, 6, 9}));
    EXPECT_EQ(points.properties[9], (std::vector<float>{4, 11, 10}));
    EXPECT_THAT(readText("1 2 3 4 5\n").names, ElementsAre("column4", "column5"));
    // A column of the same name has precedence, and two of three components are no vector.
    EXPECT_THAT(readText("x y z vx vy vz v ux uz r g b aX aY aZ\n").names,
                ElementsAre("vx", "vy", "vz", "v", "ux", "uz", "r", "g", "b", "aX", "aY", "aZ",
                            "color", "a"));
    EXPECT_EQ(readText("").positions.size(), 0);
    EXPECT_EQ(readText("# nothing\n\n").positions.size(), 0);

    auto const numbers =
        readText("nan -inf inf\n1e-60 -1e-60 3.4028235e38\n0.0000001e-40 1e-45 -0").positions;
    EXPECT_TRUE(std::isnan(numbers[0].x));
    EXPECT_EQ(numbers[0].y, -INFINITY);
    EXPECT_EQ(bitsOf(std::span(numbers).subspan(1)),
              (std::vector<std::uint32_t>{0, 0x80000000U, 0x7F7FFFFFU, 0, 1, 0x80000000U}));
}

TEST(Points, OfHostileTablesAreRefused) {
    std::pair<std::string, std::string> const table[] = {
        {"x,y,z\n1,2,abc\n", "line 2, column \"z\": wanted a number, found \"abc\""},
        {"1 2 3\n4 5", "line 2: wanted 3 numbers, found 2"},
        {"1 2 3\n4 5 6 7", "line 2: wanted 3 numbers, found more: \"7\""},
        {"1 2 3\n4 5 1e39",
         "line 2, column \"z\": wanted a number in the range of floats, found \"1e39\""},
        {"1 2 3\n4 5 -123" + std::string(60, '0'),
         "line 2, column \"z\": wanted a number in the range of floats, found \"-123" +
             std::string(56, '0') + "...\""},
        {"x,y,z\n1,,3", "line 2, column \"y\": wanted a number, found nothing"},
        {"x;y;z\n1,5;2;3", "line 2, column \"x\": wanted a number, found \"1,5\""},
        {"x\ty\tz\n1\t\t3", "line 2, column \"y\": wanted a number, found nothing"},
        {"x,y,z\n1,2,0x3", "line 2, column \"z\": wanted a number, found \"0x3\""},
        {"x,y,z\n1,2,\"3\n", "line 2: a quote is not closed: \"\"3\""},
        {"x,y,z\n1,\"2\"3,3\n", "line 2: wanted the next column after a quote, found \"3,3\""},
        {"x,y\n", "header: there is no column z among \"x\", \"y\""},
        {"1 2\n", "line 1: wanted 3 numbers, found 2"},
        {"hello", "header: there is no column x among \"hello\""},
        {"x,y,z,a,a\n", "header: there are two columns \"a\""},
        {"x,y,z,x\n", "header: there are two columns \"x\""},
        {"x,y,z,Orvane::a\n", "header: a column cannot be named \"Orvane::a\""},
        {std::string("\0\1\2 3", 6), "line 1: this is no text, .npy or .ply file"},
        {std::string(300, ','), "line 1: there are more than 256 columns"},
        {"1 2 3\n" + std::string((1 << 20) + 1, '1'),
         "line 2: the line is longer than 1048576 bytes"},
    };
    for (auto const& [text, error] : table)
        EXPECT_EQ(errorOfText(text), error) << text.substr(0, 80);

    PointReader reader(bytesOf("1 2 3\n4 5 6\n7 8"), "text");
    PointChunk chunk = reader.makeChunk(2), other;
    EXPECT_TRUE(reader.read(chunk));
    EXPECT_THROW(reader.read(chunk), FileError);
    EXPECT_TRUE(chunk.points().empty());
    EXPECT_THROW(reader.read(other), std::invalid_argument);
    EXPECT_THROW(reader.makeChunk(0), std::invalid_argument);

    Folder const folder;
    writeContent(folder / "a.ply", "1 2 3\n");
    EXPECT_EQ(errorOf([&] { PointReader(folder / "a.ply"); }), "byte 0: this is no .ply file");
    EXPECT_THAT(errorOf([] { PointReader("/"); }), HasSubstr("cannot be read: Is a directory"));
}

namespace {

/// A .ply file whose vertices stand between other elements with lists.
std::string plyOf(char const* format, std::string const& body, std::string const& count = "2") {
    return std::string("ply\r\nformat ") + format +
           " 1.0\r\ncomment element vertex 7\r\n"
           "element face 2\nproperty list uchar int vertex_indices\nproperty uchar flag\n"
           "element empty 9\nelement vertex " +
           count +
           "\nproperty double x\nproperty list ushort short u\nproperty float z\n"
           "property int8 y\nproperty uint red\nproperty ushort green\nproperty short blue\n"
           "element other 1\nproperty float k\nend_header\n" +
           body;
}
std::string const kAsciiBody =
    "3 0 1 2 7\n0 9\n0.5 2 1 -2 3 -4 4294967295 5 -6\ninf 0 nan 127 0 0 0\n1\n";

std::string binaryBody(bool isBigEndian) {
    std::string body;
    auto const add = [&]<class T>(T number) {
        std::string bytes(reinterpret_cast<char const*>(&number), sizeof number);
        if (isBigEndian) bytes = std::string(bytes.rbegin(), bytes.rend());
        body += bytes;
    };
    auto const byte = [&](int value) { add(static_cast<char>(value)); };
    auto const shorts = [&](std::initializer_list<int> values) {
        for (int const value : values) add(static_cast<short>(value));
    };
    byte(3), add(0), add(1), add(2), byte(7);
    byte(0), byte(9);
    add(0.5), shorts({2, 1, -2}), add(3.0F), byte(-4), add(4294967295U), shorts({5, -6});
    add(1e300), shorts({0}), add(std::nanf("")), byte(127), add(0), shorts({0, 0});
    add(1.0F);
    return body;
}

}  // namespace

TEST(Points, OfPlyFilesAreReadInAllEncodings) {
    for (std::string const& text :
         {plyOf("ascii", kAsciiBody), plyOf("binary_little_endian", binaryBody(false)),
          plyOf("binary_big_endian", binaryBody(true))}) {
        SCOPED_TRACE(text.substr(0, 30));
        PointReader reader(bytesOf(text), "ply");
        EXPECT_EQ(reader.count(), 2);
        Points const points = readAll(reader, 1);
        EXPECT_THAT(points.names, ElementsAre("red", "green", "blue", "color"));
        ASSERT_EQ(points.positions.size(), 2);
        EXPECT_EQ(points.positions[0], (float3{0.5F, -4, 3}));
        EXPECT_EQ(points.positions[1].x, INFINITY);
        EXPECT_TRUE(std::isnan(points.positions[1].z));
        EXPECT_THAT(points.properties[3], ElementsAre(4294967296.0F, 5, -6, 0, 0, 0));

        // Every shorter file is refused, up to the elements behind the vertices.
        std::size_t const behind = text.ends_with("1\n") ? 3 : 4;
        for (std::size_t size = 1; size + behind < text.size(); ++size)
            EXPECT_NE(errorOfText(std::string_view(text).substr(0, size)), "none") << size;
    }
}

TEST(Points, OfHostilePlyFilesAreRefused) {
    auto const header = [](std::string const& lines) {
        return "ply\nformat ascii 1.0\n" + lines + "end_header\n";
    };
    std::string const vertex =
        "element vertex 1\nproperty float x\nproperty float y\nproperty float z\n";
    std::pair<std::string, std::string> const table[] = {
        {plyOf("binary_little_endian", binaryBody(false), "1000000000000000000"),
         "header: the file is too short for the 1000000000000000000 elements \"vertex\" that it "
         "claims"},
        {plyOf("ascii", kAsciiBody, "99999999999999999999"),
         "line 8: wanted how many elements there are, found \"99999999999999999999\""},
        {plyOf("ascii", kAsciiBody, "-1"),
         "line 8: wanted how many elements there are, found \"-1\""},
        {plyOf("utf8", ""), "line 2: the format \"utf8\" is not known"},
        {header(vertex) + "1 2 x\n", "line 8, property \"z\": wanted a number, found \"x\""},
        {header(vertex) + "1 2 3 4\n", "line 8: there are more numbers than properties"},
        {header(vertex) + "1 2   \n", "line 8, property \"z\": wanted a number, found nothing"},
        {header(vertex + "property list char float l\n") + "1 2 3 -1\n",
         "line 9, property \"l\": wanted the length of a list, found \"-1\""},
        {header(vertex + "property list char float l\n") + "1 2 3 nan\n",
         "line 9, property \"l\": wanted the length of a list, found \"nan\""},
        {header(vertex + "property float x\n"), "line 7: there are two properties \"x\""},
        {header(vertex + "property list float float l\n"),
         "line 7: the length of a list is an integer"},
        {header(vertex + "property quad w\n"), "line 7: the type \"quad\" is not known"},
        {header(vertex + vertex), "line 7: there are two elements \"vertex\""},
        {header("property float x\n"), "line 3: this is no line of a header: \"property float x\""},
        {header("element face 1\n"), "header: there is no element vertex"},
        {header("element vertex 1\nproperty float x\n") + "1\n",
         "header: there is no column y among \"x\""},
        {"ply\nformat ascii 1.0\n", "line 2: the file ends within its header"},
    };
    for (auto const& [text, error] : table) EXPECT_EQ(errorOfText(text), error);
    std::string negative = "ply\nformat binary_little_endian 1.0\n" + vertex +
                           "property list char uchar l\nend_header\n" + std::string(12, '\0') +
                           '\xFF';
    EXPECT_THAT(errorOfText(negative), HasSubstr("the length of the list \"l\" is negative"));
}

TEST(Points, AreWrittenWholeOrNotAtAll) {
    Folder const folder;
    float3 const point{1, 2, 3};
    std::vector<float> const value{4};
    writeContent(folder / "target.csv", "before");
    std::filesystem::permissions(folder / "target.csv", std::filesystem::perms(0640));
    std::filesystem::create_symlink("target.csv", folder / "link.csv");
    {
        PointWriter writer(folder / "link.csv", {{"value"}});
        writer.write({&point, 1}, {value});
    }
    EXPECT_EQ(contentOf(folder / "target.csv"), "before");
    EXPECT_EQ(folder.size(), 2);
    PointWriter writer(folder / "link.csv", {{"value"}});
    writer.write({&point, 1}, {value});
    EXPECT_THROW(writer.write({&point, 1}, {}), std::invalid_argument);
    EXPECT_THROW(writer.write({}, {value}), std::invalid_argument);
    EXPECT_THROW(writer.write({&point, 1}, {std::span(&point, 1)}), std::invalid_argument);
    writer.commit();
    EXPECT_THROW(writer.write({&point, 1}, {value}), std::logic_error);
    EXPECT_THROW(writer.commit(), std::logic_error);
    EXPECT_EQ(contentOf(folder / "target.csv"), "x,y,z,value\n1,2,3,4\n");
    EXPECT_TRUE(std::filesystem::is_symlink(folder / "link.csv"));
    EXPECT_EQ(std::filesystem::status(folder / "target.csv").permissions(),
              std::filesystem::perms(0640));
    EXPECT_EQ(folder.size(), 2);

    for (char const* const name : {"", "a b", "x", "a,b", "a\nb", "#a"})
        EXPECT_THROW(PointWriter(folder / "a.csv", {{name}}), std::invalid_argument) << name;
    EXPECT_THROW(PointWriter(folder / "a.csv", {{"a", 2}}), std::invalid_argument);
    EXPECT_EQ(errorOf([&] { PointWriter(folder / "a.txt", {{"value"}}); }),
              "the suffix is none of .npy, .csv and .ply");
    // A device is written, not replaced, and cannot take a count at its end.
    PointWriter("/dev/null", {{"value"}}, PointFormat::kCsv).commit();
    EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
    for (PointFormat const format : {PointFormat::kPly, PointFormat::kNpy})
        EXPECT_THAT(errorOf([&] { PointWriter("/dev/null", {{"value"}}, format); }),
                    HasSubstr("cannot be written to a pipe"));
    PointWriter full("/dev/full", {{"value"}}, PointFormat::kCsv);
    EXPECT_THAT(errorOf([&] { full.commit(); }), HasSubstr("cannot be written: No space left"));
}
