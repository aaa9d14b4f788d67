#include "zel_exchange/mesh_file.h"

#include <gmock/gmock.h>

#include <clocale>
#include <limits>
#include <locale>

#include "exchange/files.h"
#include "support/refused.h"
#include "zel/zel.h"
#include "zel_exchange/npy.h"
#include "zel_exchange/points.h"
#include "zel_exchange/vdb_write.h"
#include "zel_exchange/volume_mesh.h"

// Meshes in .obj and .ply files.
using namespace support;
using namespace zel;
using testing::HasSubstr;

TEST(MeshFile, IsText) {
    Folder const folder;
    Mesh mesh{.positions = {{0, 0, 0}, {1.1F, -0.0F, 1e-9F}, {0, 1e10F, 0}, {1, 1, 1}},
              .normals = {},
              .colours = {},
              .triangles = {{0, 1, 2}},
              .quads = {{3, 2, 1, 0}}};
    writeMesh(folder / "a.OBJ", mesh);
    EXPECT_EQ(contentOf(folder / "a.OBJ"),
              "v 0 0 0\nv 1.1 -0 1e-09\nv 0 1e+10 0\nv 1 1 1\nf 1 2 3\nf 4 3 2 1\n");
    mesh.positions.resize(1);
    mesh.normals = {{0, 0, 1}};
    mesh.colours = {{0.5F, 0, 2}};
    mesh.triangles = {{0, 0, 0}};
    mesh.quads.clear();
    writeObj(folder / "a.OBJ", mesh);
    EXPECT_EQ(contentOf(folder / "a.OBJ"), "v 0 0 0 0.5 0 2\nvn 0 0 1\nf 1//1 1//1 1//1\n");
}

TEST(MeshFile, IsBinaryAndReadAsPoints) {
    Folder const folder;
    std::mt19937 random(6);
    Mesh mesh;
    for (int i = 0; i < 5000; ++i) {
        mesh.positions.push_back({anyFloat(random), anyFloat(random), anyFloat(random)});
        mesh.normals.push_back({anyFloat(random), anyFloat(random), anyFloat(random)});
        mesh.colours.push_back({1, 0.5F, -1});
    }
    mesh.triangles = {{0, 1, 4999}};
    mesh.quads = {{0x102, 2, 3, 4}};
    writeMesh(folder / "a.ply", mesh);
    std::string const tail("\3\0\0\0\0\1\0\0\0\x87\x13\0\0\4\2\1\0\0\2\0\0\0\3\0\0\0\4\0\0\0", 30);
    EXPECT_TRUE(contentOf(folder / "a.ply").ends_with(tail));

    PointReader reader(folder / "a.ply");
    PointChunk chunk = reader.makeChunk(6000);
    ASSERT_TRUE(reader.read(chunk));
    ASSERT_EQ(chunk.count, 5000);
    ASSERT_EQ(chunk.properties[6].name, "normal");
    EXPECT_EQ((*chunk.properties[7].vectors)[17], (float3{255, 128, 0}));
    EXPECT_EQ(bitsOf(chunk.points()), bitsOf(mesh.positions));
    EXPECT_EQ(bitsOf({chunk.properties[6].vectors->data(), 5000}), bitsOf(mesh.normals));
}

TEST(MeshFile, RefusesBrokenMeshes) {
    Folder const folder;
    Mesh const whole{.positions = {{}}, .normals = {}, .colours = {}, .triangles = {}, .quads = {}};
    for (int fault = 0; fault < 4; ++fault) {
        Mesh mesh = whole;
        if (fault == 0) mesh.normals.resize(2);
        if (fault == 1) mesh.colours.resize(2);
        if (fault == 2) mesh.triangles = {{0, 0, 1}};
        if (fault == 3) mesh.quads = {{0, 0xFFFFFFFF, 0, 0}};
        EXPECT_THROW(writeMesh(folder / "a.obj", mesh), std::invalid_argument) << fault;
        EXPECT_THROW(writeMesh(folder / "a.ply", mesh), std::invalid_argument) << fault;
    }
    EXPECT_EQ(errorOf([&] { writeMesh(folder / "a.stl", whole); }),
              "the suffix is none of .obj and .ply");
    EXPECT_EQ(folder.size(), 0);
}

namespace {

/// Numbers such as 1.2.3.4,5, in streams and, if a locale of that kind is there, in C.
class CommaLocale {
public:
    CommaLocale() {
        for (char const* const name : {"de_DE.UTF-8", "fr_FR.UTF-8"})
            if (std::setlocale(LC_ALL, name) != nullptr) break;
    }
    CommaLocale(CommaLocale const&) = delete;
    CommaLocale& operator=(CommaLocale const&) = delete;
    ~CommaLocale() {
        std::locale::global(before);
        std::setlocale(LC_ALL, "C");
    }

private:
    struct Commas : std::numpunct<char> {
        char do_decimal_point() const override { return ','; }
        char do_thousands_sep() const override { return '.'; }
        std::string do_grouping() const override { return "\1"; }
    };
    std::locale const before = std::locale::global({std::locale(), new Commas});
};

/// The bytes of files of all formats, what is read of them, and texts of errors.
std::vector<std::string> filesAndErrors() {
    Folder const folder;
    constexpr std::size_t kCount = 1234;
    Box const box{{0.5F, 0.5F, 0.5F}, {1.5F, 1, 1}};
    std::mt19937 random(8);
    auto const values = anyFloats(random, kCount);
    std::vector<float3> const positions(kCount, {1234.5F, -0.25F, 1e-9F});
    std::vector<std::string> texts;
    auto const addBits = [&](std::span<float const> numbers) {
        auto const bytes = std::as_bytes(numbers);
        texts.emplace_back(reinterpret_cast<char const*>(bytes.data()), bytes.size());
    };
    for (char const* const name : {"a.obj", "b.ply"})
        writeMesh(folder / name, {positions, {}, {}, {{0, 1, 1233}}, {}});
    for (char const* const name : {"c.csv", "d.ply"}) {
        PointWriter writer(folder / name, {{"value"}});
        writer.write(positions, {values});
        writer.commit();
        PointReader reader(folder / name);
        PointChunk chunk = reader.makeChunk(kCount);
        reader.read(chunk);
        addBits(floatsOf(chunk.points()));
        addBits(*chunk.properties[0].scalars);
    }
    NpyWriter writer(folder / "e.npy", {.shape = {kCount}});
    writer.write(values);
    writer.commit();
    std::vector<float> read(kCount);
    NpyArray(folder / "e.npy").read(0, read);
    addBits(read);
    writeVdb(folder / "f.vdb", {{"p", {}, Quern::makePtr<VectorFieldPosition>()}}, box, 0.25F);
    float3 const p = readVdb(folder / "f.vdb", "p").vector("p")->eval({0.6F, 0.5F, 1}, 0);
    addBits(floatsOf({&p, 1}));
    for (char const* const name : {"a.obj", "b.ply", "c.csv", "d.ply", "e.npy", "f.vdb"})
        texts.push_back(contentOf(folder / name));
    ScalarFieldConstant const nan(std::numeric_limits<float>::quiet_NaN());
    for (float const band : {1.25F, 2.0F})
        texts.push_back(messageOf([&] { meshOf(nan, box, 0.75F, {.band = band}); }));
    return texts;
}

}  // namespace

TEST(Files, AreTheSameInEveryLocale) {
    auto const expected = filesAndErrors();
    EXPECT_EQ(*(expected.end() - 2), "zel::meshOf: a band of 1.25 voxels");
    EXPECT_THAT(expected.back(), HasSubstr("NaN at [0.75, 0.75, 0.75]"));
    CommaLocale const comma;
    EXPECT_TRUE(filesAndErrors() == expected);
}
