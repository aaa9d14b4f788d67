#include "zel_exchange/mesh_file.h"

#include <gmock/gmock.h>

#include "exchange/files.h"
#include "zel_exchange/points.h"

// Meshes in .obj and .ply files.
using namespace support;
using namespace zel;

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
