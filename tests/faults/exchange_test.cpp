#include <sys/wait.h>
#include <tbb/global_control.h>
#include <unistd.h>

#include <cstdlib>
#include <limits>

#include "exchange/files.h"
#include "faults/every_failure.h"
#include "support/sanitized.h"
#include "zel/zel.h"
#include "zel_exchange/image.h"
#include "zel_exchange/mesh_file.h"
#include "zel_exchange/npy.h"
#include "zel_exchange/points.h"
#include "zel_exchange/vdb_write.h"
#include "zel_exchange/volume_mesh.h"

namespace {

using namespace zel;
using namespace faults;
using support::bytesOf;

/// How many files the process has open.
float openFiles() {
    std::filesystem::directory_iterator const files("/proc/self/fd");
    return static_cast<float>(std::distance(files, {}));
}

/// Work that writes or reads a file, beside one that is there before.
Case filing(std::string const& name, std::filesystem::path const& written,
            std::function<Bits()> const& work) {
    return {name, [=] {
                auto const read = std::make_shared<Bits>();
                support::writeContent(written, "before");
                return Attempt{
                    [=] { *read = work(); },
                    [=] { return Bits() << support::contentOf(written) << *read << openFiles(); }};
            }};
}

Box const kBox{{0.5F, 0.5F, 0.5F}, {1.5F, 1.5F, 1.5F}};  // with one node below the root

void writeBall(std::filesystem::path const& path, VdbClass kind) {
    WriteVdbOptions options;
    options.band = 2;
    options.half = kind == VdbClass::kFogVolume;
    options.parallel = false;
    Quern::Ptr<ScalarField> const ball = Quern::makePtr<ScalarFieldSphere>(float3{1, 1, 1}, 0.4F);
    writeVdb(path, {{"ball", ball, {}, kind}}, kBox, 0.25F, options);
}

/// OpenVDB keeps a name that it could not complete: each failure is in a process that starts it.
TEST(Faults, OfInitializingOpenVdb) {
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    support::Folder const folder;
    auto const path = folder / "a.vdb";
    auto const inChild = [&](long long n) {
        failAfter(n);
        try {
            meshOf(ScalarFieldConstant(0), kBox, 0);  // which is refused later
        } catch (std::exception const&) {
        }
        bool const came = endFailures().came;
        try {
            writeBall(path, VdbClass::kLevelSet);
            if (!listVdb(path)[0].isReadable) return 2;
        } catch (std::bad_alloc const&) {
        } catch (std::exception const&) {
            return 2;
        }
        return came ? 1 : 0;
    };
    int code = 1;
    for (long long n = 0; code == 1; ++n) {
        SCOPED_TRACE(n);
        pid_t const child = fork();
        if (child == 0) std::_Exit(inChild(n));
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status));
        code = WEXITSTATUS(status);
        EXPECT_LT(code, 2);
        EXPECT_TRUE(code == 1 || n > 1) << "it was started before";
    }
}

TEST(Faults, OfFiles) {
    tbb::global_control const limit(tbb::global_control::max_allowed_parallelism, 1);
    support::Folder const folder;
    std::string const points = "x,y,z,mass,v.x,v.y,v.z\n1,2,3,4,5,6,7\n8,9,10,11,12,13,14\n";
    Image8 const image{3, 2, 3, std::vector<std::uint8_t>(18, 77)};
    Mesh const mesh{{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {}, {}, {{0, 1, 2}}, {}};
    auto const path = [&](char const* name) { return folder / name; };
    writePng(path("image.png"), image);
    writePng(path("image16.png"), Image16{1, 2, 1, {1000, 2000}});
    std::string const png = support::contentOf(path("image.png")),
                      png16 = support::contentOf(path("image16.png")),
                      npy = npyHeader({.shape = {2, 3}}) + std::string(24, '\1'),
                      ply = "ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n"
                            "property float y\nproperty float z\nproperty uchar mass\nend_header\n",
                      binary = std::string(ply).replace(11, 5, "binary_little_endian");
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
    auto const readImage = [&](std::string const& content) {
        Bits bits;
        auto const read = readPng(bytesOf(content), "png");
        std::visit(
            [&](auto const& of) {
                for (auto const sample : of.samples) bits << sample;
            },
            read);
        return bits;
    };
    auto const write = [&](std::filesystem::path const& to, VdbClass kind) {
        return writeBall(to, kind), Bits();
    };
    writeBall(path("read.vdb"), VdbClass::kLevelSet);
    auto const read = [&](char const* name, long long most) {
        auto const volume = readVdb(path("read.vdb"), name, {.maxTiles = most, .parallel = false});
        return Bits() << volume.scalar("ball", SamplerType::kCubicC0)->eval({1.35F, 1, 1}, 0);
    };
    WriteVdbOptions alone;
    alone.parallel = false;
    writeVdb(path("both.vdb"),
             {{"s", Quern::makePtr<ScalarFieldXPosition>()},
              {"v", {}, Quern::makePtr<VectorFieldPosition>()}},
             kBox, 0.25F, alone);
    auto const readBoth = [&] {
        return readVdbGrids(path("both.vdb"), {"s", "v"}, {.parallel = false});
    };
    VdbVolume both = readBoth();
    both.worldToIndex = {{{3, 0, 0, 1}, {0, 4, 1, 0}, {0, 0, 5, 0}}};  // no cubes
    writeVdb(path("both.vdb"), both, alone);
    auto const readPlaced = [&] {
        VdbVolume const placed = readBoth();
        return Bits() << placed.scalar("s")->eval({0.9F, 0.6F, 0.6F}, 0)
                      << placed.vector("v")->eval({0.9F, 0.6F, 0.6F}, 0);
    };
    auto const makeMesh = [&] {
        MeshOptions options;
        options.colour = Quern::makePtr<VectorFieldPosition>();
        options.parallel = false;
        Mesh const made = meshOf(ScalarFieldSphere({1, 1, 1}, 0.4F), kBox, 0.1875F, options);
        return Bits() << made.positions << made.normals << made.colours;
    };
    for (Case const& one :
         {filing("read a table", none, [&] { return readPoints(points); }),
          filing("write a table", path("points"), [&] { return writePoints(PointFormat::kCsv); }),
          filing("write a .ply", path("points"), [&] { return writePoints(PointFormat::kPly); }),
          filing("read a .npy", none, readArray),
          filing("write a .npy", path("array.npy"), writeArray),
          filing("read a .png", none, [&] { return readImage(png); }),
          filing("read a .png of 16 bits", none, [&] { return readImage(png16); }),
          filing("write a .png", path("a.png"),
                 [&] { return writePng(path("a.png"), image), Bits(); }),
          filing("write an .obj", path("a.obj"),
                 [&] { return writeMesh(path("a.obj"), mesh), Bits(); }),
          filing("write a mesh as .ply", path("a.ply"),
                 [&] { return writeMesh(path("a.ply"), mesh), Bits(); }),
          filing("read a .ply of text", none, [&] { return readPoints(ply + "1 2 3 4\n"); }),
          filing("read a binary .ply", none,
                 [&] { return readPoints(binary + std::string(13, '\1')); }),
          filing("read a .npy of points", none, [&] { return readPoints(npy); }),
          filing("list a .vdb", none,
                 [&] { return Bits() << listVdb(path("read.vdb"))[0].metadata.at("class"); }),
          filing("read a .vdb", none, [&] { return read("ball", 1 << 20); }),
          filing("read placed grids of a .vdb", none, readPlaced)})
        failEach(one);
    auto const a = path("a.vdb");
    for (Case one :
         {filing("make a mesh", none, makeMesh),
          filing("write a level set", a, [&] { return write(a, VdbClass::kLevelSet); }),
          filing("write a fog volume", a, [&] { return write(a, VdbClass::kFogVolume); }),
          filing("write a volume", a, [&] { return writeVdb(a, both, alone), Bits(); }),
          filing("write channels", a, [&] {
              return writeVdb(a, both.object, {{"s"}, {"v"}}, alone), Bits();
          })}) {
        if (support::kIsSanitized) break;  // which reports what is lost at the end
        one.mayLose = 1;  // a node that OpenVDB fails to put into the table of the root
        failEach(one);
    }

    std::function<void()> const refusals[] = {
        [&] { readPoints("x,y,z\n1,2,a\n"); },
        [&] { readPoints("ply\nformat ascii 2.0\n"); },
        [&] { readPoints(ply + "1 2 3 a\n"); },
        [&] { readPoints(npy.substr(0, npy.size() - 1)); },
        [&] { readImage(png.substr(0, png.size() / 2)); },
        [&] { writePng(path("none/a.png"), image); },
        [&] {
            PointWriter(path("points"), {{"a name", 1}}, PointFormat::kCsv);
        },
        [&] {
            npyHeader({.shape = {~0ULL, 2}});
        },
        [&] { listVdb(path("image.png")); },
        [&] { read("none", 1 << 20); },
        [&] { read("ball", 1); },
        [&] {
            meshOf(ScalarFieldConstant(std::numeric_limits<float>::quiet_NaN()), kBox, 0.1875F);
        },
        [&] { write(path("a.vdb"), VdbClass::kStaggered); },
    };
    for (auto const& refused : refusals)
        failEach(filing("refuse " + std::to_string(&refused - refusals), none,
                        [&] { return refusalOf(refused); }));
    EXPECT_EQ(folder.size(), support::kIsSanitized ? 10U : 11U);  // no temporary file is left
}

}  // namespace
