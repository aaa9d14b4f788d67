#include <tbb/global_control.h>

#include "exchange/files.h"
#include "faults/every_failure.h"
#include "zel/zel.h"
#include "zel_exchange/image.h"
#include "zel_exchange/mesh_file.h"
#include "zel_exchange/npy.h"
#include "zel_exchange/points.h"

namespace {

using namespace zel;
using namespace faults;
using support::bytesOf;

/// Work that writes or reads a file, beside one that is there before.
Case filing(std::string const& name, std::filesystem::path const& written,
            std::function<Bits()> const& work) {
    return {name, [=] {
                auto const read = std::make_shared<Bits>();
                support::writeContent(written, "before");
                return Attempt{[=] { *read = work(); },
                               [=] { return Bits() << support::contentOf(written) << *read; }};
            }};
}

TEST(Faults, OfFiles) {
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    support::Folder const folder;
    std::string const points = "x,y,z,mass,v.x,v.y,v.z\n1,2,3,4,5,6,7\n8,9,10,11,12,13,14\n";
    Image8 const image{3, 2, 3, std::vector<std::uint8_t>(18, 77)};
    Mesh const mesh{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {}, {}, {{0, 1, 2}}, {}};
    auto const path = [&](char const* name) { return folder / name; };
    writePng(path("image.png"), image);
    std::string const png = support::contentOf(path("image.png")),
                      npy = npyHeader({.shape = {2, 3}}) + std::string(24, '\1');
    std::vector<float> const numbers(6, 0.5F);
    std::vector<float3> const positions{{1, 2, 3}, {4, 5, 6}};
    auto const none = path("none");

    auto const readPoints = [&](std::string const& text) {
        PointReader reader(bytesOf(text), "points");
        PointChunk chunk = reader.makeChunk(1);
        Bits bits;
        while (reader.read(chunk)) {
            bits << *chunk.positions;
            bits << objectOf(chunk).hasProperty("mass");
        }
        return bits;
    };
    auto const writePoints = [&](PointFormat format) {
        PointWriter writer(path("points"), {{"value", 1}, {"vector", 3}}, format);
        writer.write(positions, {std::vector<float>{7, 8}, positions});
        writer.commit();
        return Bits();
    };
    auto const readArray = [&] {
        std::vector<float> read(6);
        NpyArray(bytesOf(npy), "npy").read(0, read);
        return Bits() << read;
    };
    auto const writeArray = [&] {
        NpyWriter writer(path("array.npy"), {.shape = {6}});
        writer.write(numbers);
        writer.commit();
        return Bits();
    };
    auto const readImage = [&] {
        auto const read = std::get<Image8>(readPng(bytesOf(png), "png"));
        return Bits() << std::string(read.samples.begin(), read.samples.end());
    };
    for (Case const& one :
         {filing("read a table", none, [&] { return readPoints(points); }),
          filing("write a table", path("points"), [&] { return writePoints(PointFormat::kCsv); }),
          filing("write a .ply", path("points"), [&] { return writePoints(PointFormat::kPly); }),
          filing("read a .npy", none, readArray),
          filing("write a .npy", path("array.npy"), writeArray),
          filing("read a .png", none, readImage),
          filing("write a .png", path("a.png"),
                 [&] { return writePng(path("a.png"), image), Bits(); }),
          filing("write an .obj", path("a.obj"),
                 [&] { return writeMesh(path("a.obj"), mesh), Bits(); })})
        failEach(one);
    EXPECT_EQ(folder.size(), 6U);  // no temporary file is left
}

}  // namespace
