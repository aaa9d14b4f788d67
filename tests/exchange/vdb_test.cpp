#include "zel_exchange/vdb.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>

#include "exchange/files.h"
#include "exchange/vdb_grids.h"
#include "support/refused.h"
#include "zel/zel.h"
#include "zel_exchange/vdb_write.h"
#include "zel_exchange/volume_mesh.h"

namespace {

using support::Folder;
using vdb_grids::float3;
using vdb_grids::GridPtr;
using zel::VdbTree;

constexpr VdbTree kTrees[] = {VdbTree::kBinary, VdbTree::kQuinary};

/// Random positions, half of them within `near` of 0, the others within `far`.
std::vector<float3> positions(float near, float far, unsigned seed = 7) {
    constexpr int kCount = 20000;
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> unit(-1, 1);
    std::vector<float3> all;
    for (int i = 0; i < kCount; ++i) {
        float const reach = i % 2 == 0 ? near : far;
        all.push_back({unit(engine) * reach, unit(engine) * reach, unit(engine) * reach});
    }
    return all;
}

std::vector<float> values(zel::ScalarField const& field, std::vector<float3> const& at) {
    std::vector<float> all(at.size());
    zel::evaluate(field, zel::PointView::of(at), all);
    return all;
}

/// Compares with the values of OpenVDB, relative to the largest value there is.
void expectNear(std::vector<float> const& ours, std::vector<float> const& theirs, float tolerance,
                std::vector<float3> const& at) {
    float most = 0;
    for (float const v : theirs) most = std::max(most, std::fabs(v));
    int wrong = 0;
    for (std::size_t i = 0; i < at.size() && wrong < 3; ++i)
        if (!(std::fabs(ours[i] - theirs[i]) <= tolerance * most)) {
            ++wrong;
            ADD_FAILURE() << ours[i] << " for " << theirs[i] << " at " << at[i].x << ", " << at[i].y
                          << ", " << at[i].z;
        }
}

/// Expects that a file is refused with a text that has a part.
void expectRefused(std::string const& path, std::string const& name, std::string const& part,
                   zel::ReadVdbOptions const& options = {}) {
    support::expectRefused<zel::FileError>([&] { zel::readVdb(path, name, options); }, part);
}

TEST(ReadVdb, AgreesWithBoxSampler) {
    Folder const folder;
    auto const ball = vdb_grids::sphere(1.5F, {0.25F, 0, -0.5F}, 0.0625F);
    struct Case {
        GridPtr grid;
        float near, far;
    };
    std::vector<Case> cases{
        {ball, 2, 5}, {vdb_grids::fogOf(ball), 2, 5}, {vdb_grids::inDouble(ball), 2, 5}};
    for (unsigned seed = 0; seed < 6; ++seed)
        cases.push_back({vdb_grids::randomScalars(seed), 45, 310});
    for (std::size_t i = 0; i < cases.size(); ++i) {
        auto const& [grid, near, far] = cases[i];
        auto const path = folder / "a.vdb";
        vdb_grids::write(path, {{"value", grid}});
        auto const at = positions(near, far);
        auto const theirs = vdb_grids::sample(grid, at);
        for (VdbTree const tree : kTrees) {
            SCOPED_TRACE(testing::Message() << "case " << i << ", tree " << static_cast<int>(tree));
            auto const volume = zel::readVdb(path, "value", {.tree = tree});
            EXPECT_TRUE(volume.isPlaced());
            expectNear(values(*volume.scalar("value"), at), theirs, 4e-7F, at);
        }
    }
}

/// The fields of volumes of vectors, and of two grids of different topology over one tree.
TEST(ReadVdb, ReadsVectorsAndSeveralGridsOverOneTree) {
    Folder const folder;
    auto const path = folder / "several.vdb";
    auto const vectors = vdb_grids::randomVectors(3);
    auto const scalars = vdb_grids::randomScalars(5);
    vdb_grids::write(path, {{"v", vectors}, {"s", scalars}, {"s", vdb_grids::randomScalars(7)}});
    auto const at = positions(45, 310);
    auto const expected = vdb_grids::sampleVectors(vectors, at);
    for (VdbTree const tree : kTrees) {
        auto const volume = zel::readVdbGrids(path, {"v", "s", "s[1]"}, {.tree = tree});
        expectNear(values(*volume.scalar("s"), at), vdb_grids::sample(scalars, at), 4e-7F, at);
        std::vector<float3> found(at.size());
        zel::evaluate(*volume.vector("v"), zel::PointView::of(at), found);
        for (int c = 0; c < 3; ++c) {
            std::vector<float> ours, theirs;
            for (std::size_t i = 0; i < at.size(); ++i) {
                ours.push_back(found[i][c]);
                theirs.push_back(expected[i][c]);
            }
            expectNear(ours, theirs, 4e-7F, at);
        }
        EXPECT_EQ(volume.scalar("s")->eval({1e10F, 0, 0}, 0), vdb_grids::as(scalars)->background());
        EXPECT_THROW(volume.vector("s"), std::invalid_argument);
    }
    // OpenVDB writes one tree for grids that share it.
    vdb_grids::write(folder / "shared.vdb", {{"a", scalars}, {"b", scalars}});
    expectNear(values(*zel::readVdb(folder / "shared.vdb", "b").scalar("b"), at),
               vdb_grids::sample(scalars, at), 4e-7F, at);
    auto const grids = zel::listVdb(path);
    ASSERT_EQ(grids.size(), 3U);
    EXPECT_EQ(grids[2].name, "s[1]");
    EXPECT_EQ(grids[0].type, "vec3s");
}

TEST(ReadVdb, KeepsConstantRegionsCoarseAndInsidesNegative) {
    Folder const folder;
    auto const path = folder / "ball.vdb";
    auto const ball = vdb_grids::sphere(10, {}, 0.125F);
    // Halves of three voxels' distances, so that no value is rounded: 0.375, and 0 at the centre.
    vdb_grids::write(path, {{"ball", ball}, {"open", vdb_grids::withoutInside(ball)}}, true);
    for (VdbTree const tree : kTrees)
        for (char const* const name : {"ball", "open"}) {
            auto const volume = zel::readVdb(path, name, {.tree = tree});
            auto const field = volume.scalar(name);
            EXPECT_EQ(field->eval({0, 0, 0}, 0), -0.375F);
            EXPECT_EQ(field->eval({8, 0, 0}, 0), -0.375F);
            EXPECT_EQ(field->eval({0, 11, 0}, 0), 0.375F);
            EXPECT_EQ(field->eval({1e6F, 0, 0}, 0), 0.375F);
            EXPECT_NEAR(field->eval({0, 0, 10}, 0), 0, 1e-3F);
        }
    auto const object = zel::readVdb(path, "ball").object;
    auto const tree = Orvane::Geometry::shallow_copy_object_to_orv_volume(object)
                          ->component<ORV::TileTree3D::Container<zel::BinaryTraits>>(
                              Orvane::Geometry::sVoxelTileTree);
    // Of 160^3 voxels, those of the shell, which is 7 of 80 wide, in tiles of 4.
    EXPECT_LT(tree->tileCount(zel::BinaryTraits::kMaxDepth) * 64, 160 * 160 * 160 / 4);
}

TEST(ReadVdb, PutsGridsWhereTheirTransformsDo) {
    Folder const folder;
    auto const ball = vdb_grids::fogOf(vdb_grids::sphere(12, {3, 0, -2}, 1));
    struct Case {
        bool placed;
        float rows[4][3];
    };
    // The images of the axes and of 0: whole voxels away, a part of one, mirrored, turned, sheared.
    for (Case const& c : {Case{true, {{0.5F, 0, 0}, {0, 0.5F, 0}, {0, 0, 0.5F}, {1.5F, -70, 4}}},
                          Case{false, {{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {0.5F, 3, 1.25F}}},
                          Case{false, {{-1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {0, 0, 0}}},
                          Case{false, {{0.6F, 0.8F, 0}, {-0.8F, 0.6F, 0}, {0, 0, 1}, {9, 8, 7}}},
                          Case{false, {{1, 0, 0}, {0.5F, 2, 0}, {-0.25F, 0, 0.5F}, {0, 5, 0}}}}) {
        auto const grid = vdb_grids::transformed(ball, c.rows);
        auto const path = folder / "a.vdb";
        vdb_grids::write(path, {{"fog", grid}});
        auto at = positions(14, 20);
        for (auto& p : at) {
            float3 const index = p + float3{3, 0, -2};
            for (int a = 0; a < 3; ++a)
                p[a] = c.rows[3][a] + index.x * c.rows[0][a] + index.y * c.rows[1][a] +
                       index.z * c.rows[2][a];
        }
        auto const listed = zel::listVdb(path).front().indexToWorld.value();
        for (std::size_t a = 0; a < 4; ++a)
            for (std::size_t r = 0; r < 3; ++r)
                EXPECT_NEAR(listed[r][a], double{c.rows[a][r]}, 1e-15) << r << " " << a;
        auto const volume = zel::readVdb(path, "fog");
        EXPECT_EQ(volume.isPlaced(), c.placed);
        // Positions are floats, and a voxel's values differ by up to 1/3.
        expectNear(values(*volume.scalar("fog"), at), vdb_grids::sample(grid, at), 1e-5F, at);
        // Written back, the same voxels.
        zel::writeVdb(folder / "b.vdb", volume);
        auto const back = vdb_grids::read(folder / "b.vdb", "fog");
        EXPECT_TRUE(vdb_grids::as(grid)->tree().hasSameTopology(vdb_grids::as(back)->tree()));
        expectNear(vdb_grids::sample(back, at), vdb_grids::sample(grid, at), 0, at);
    }
    vdb_grids::write(folder / "c.vdb", {{"far", vdb_grids::inFrustum(ball)}});
    expectRefused(folder / "c.vdb", "far", "NonlinearFrustumMap");
}

TEST(ReadVdb, RefusesWhatNoVolumeCanHold) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    auto const ball = vdb_grids::sphere(5, {}, 1);
    float const nan = std::numeric_limits<float>::quiet_NaN();
    float const large[4][3] = {{2, 0, 0}, {0, 2, 0}, {0, 0, 2}, {0, 0, 0}};
    vdb_grids::write(path, {{"nan", vdb_grids::withValue(ball, {2, -3, 4}, nan)},
                            {"far", vdb_grids::withValue(ball, {1 << 30, 0, 0}, 1)},
                            {"tiles", vdb_grids::largeTiles(1000)},
                            {"mask", vdb_grids::booleans()},
                            {"small", ball}});
    expectRefused(path, "nan",
                  path.string() + ": grid \"nan\": the value of voxel (2, -3, 4) is nan");
    expectRefused(path, "far", "voxels at (1073741824, 0, 0)");
    expectRefused(path, "tiles", "more than 1000000 tiles", {.maxTiles = 1000000});
    expectRefused(path, "small", "more than 20 tiles", {.maxTiles = 20});
    expectRefused(path, "mask", "\"Tree_bool_5_4_3\"");
    expectRefused(path, "fog", "\"nan\", \"far\"");
    expectRefused(folder / "none.vdb", "a", "none.vdb");
    expectRefused(folder / "", "a", path.parent_path());
    vdb_grids::write(folder / "b.vdb", {{"a", ball}, {"b", vdb_grids::transformed(ball, large)}});
    EXPECT_THROW(zel::readVdbGrids(folder / "b.vdb", {"a", "b"}), zel::FileError);
}

/// Files that were cut, or have a few bytes changed: each is read, or refused by a FileError.
TEST(ReadVdb, SurvivesDamagedFiles) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    vdb_grids::write(path,
                     {{"a", vdb_grids::sphere(5, {}, 1)}, {"b", vdb_grids::randomVectors(1)}});
    std::string const good = support::contentOf(path);
    auto const tryFile = [&](std::string const& bytes) {
        support::writeContent(path, bytes);
        bool read = true;
        for (char const* const name : {"a", "b"}) try {
                zel::readVdb(path, name, {.maxTiles = 1 << 18});
            } catch (zel::FileError const&) {
                read = false;
            }
        return read;
    };
    EXPECT_TRUE(tryFile(good));
    std::mt19937 engine(11);
    for (int i = 0; i < 20; ++i) EXPECT_FALSE(tryFile(good.substr(0, engine() % good.size())));
    for (int i = 0; i < 60; ++i) {
        std::string bad = good;
        // The first part of the file has most of the structure.
        std::size_t const reach = i % 2 == 0 ? 1500 : bad.size();
        for (auto n = 1 + engine() % 3; n > 0; --n)
            bad[engine() % reach] = static_cast<char>(engine());
        tryFile(bad);
    }
}

/// Sizes and places that OpenVDB takes as they are.
TEST(ReadVdb, ChecksSizesOfBlocksAndPlacesOfGrids) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    vdb_grids::write(path, {{"a", vdb_grids::sphere(5, {}, 1)}});
    std::string const good = support::contentOf(path);
    auto const number = [&](std::size_t at) {
        std::int64_t value = 0;
        std::memcpy(&value, &good[at], sizeof value);
        return value;
    };
    auto const refusedWith = [&](std::size_t at, auto value, char const* part) {
        std::string bad = good;
        std::memcpy(&bad[at], &value, sizeof value);
        support::writeContent(path, bad);
        expectRefused(path, "a", part);
    };
    auto const size = static_cast<std::int64_t>(good.size());
    std::size_t block = good.size() - 9;  // the last one
    while (number(block) != size - static_cast<std::int64_t>(block) - 8) --block;
    refusedWith(block, -number(block), "a block of -");
    for (std::size_t const field : {4U, 12U})  // of Blosc's header: all bytes, and compressed ones
        refusedWith(block + 8 + field, std::int32_t{1 << 20}, "sizes are wrong");
    std::size_t place = 0;
    while (number(place) != size) ++place;
    refusedWith(place, size + 1, "the end of a grid at byte");
    std::string_view const half = "is_saved_as_half_float";
    std::size_t const type = good.find(half) + half.size() + sizeof(std::uint32_t);
    refusedWith(type, 'r', "of the type \"rool\"");
    refusedWith(place, size - 10, "are left");
    std::string_view const delayed = "__delayedload";
    std::size_t const leaves = good.find(delayed) + delayed.size() + sizeof(std::uint32_t);
    auto const masks = static_cast<std::uint32_t>(number(leaves + 4));
    auto const count = static_cast<std::uint32_t>(number(leaves));
    refusedWith(leaves, std::int32_t{1 << 30}, "1073741824 leaves");
    refusedWith(leaves + 4, std::int32_t{1 << 30}, "1073741824 bytes in");
    refusedWith(leaves + 8 + (masks > 0 ? masks : count), std::int32_t{1 << 29},
                "536870912 bytes in");
    refusedWith(leaves - sizeof(std::uint32_t), std::uint32_t{4}, "metadata of 4 bytes for");
}

using zel::VdbClass;
using zel::VdbField;

zel::VdbVolume::ScalarPtr ball(float3 const& centre, float radius) {
    return Quern::makePtr<zel::ScalarFieldSphere>(centre, radius);
}

constexpr float kVoxel = 0.0625F;
zel::Box const kBox{{-2, -2, -2}, {2, 2, 2}};

TEST(WriteVdb, WritesLevelSetsThatOpenVdbJoins) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    auto const a = ball({-0.4F, 0, 0.1F}, 1), b = ball({0.5F, 0.3F, 0}, 0.8F);
    auto const both = Quern::makePtr<zel::ScalarFieldMin>(a, b);
    zel::writeVdb(path,
                  {{"a", a, {}, VdbClass::kLevelSet},
                   {"b", b, {}, VdbClass::kLevelSet},
                   {"both", both, {}, VdbClass::kLevelSet},
                   {"place", {}, Quern::makePtr<zel::VectorFieldPosition>()},
                   {"fog", a, {}, VdbClass::kFogVolume}},
                  kBox, kVoxel,
                  {.band = 3, .creator = "vdb_test", .metadata = {{"scene", "balls"}}});
    auto const joined = openvdb::GridBase::Ptr(openvdb::tools::csgUnionCopy(
        *vdb_grids::as(vdb_grids::read(path, "a")), *vdb_grids::as(vdb_grids::read(path, "b"))));
    auto const whole = vdb_grids::read(path, "both");
    std::vector<float3> at;
    std::vector<float> band;
    for (auto const& [p, value] : vdb_grids::voxels(joined)) {
        at.push_back(p);
        band.push_back(value);
    }
    expectNear(vdb_grids::sample(whole, at), band, 1.0F / 12, at);  // a quarter of a voxel
    EXPECT_GT(at.size(), 10000U);

    // Against a level set of OpenVDB: the same voxels, signs, and background.
    auto const ours = vdb_grids::read(path, "a");
    auto const theirs = vdb_grids::sphere(1, {-0.4F, 0, 0.1F}, kVoxel);
    auto const everywhere = positions(1.5F, 3);
    expectNear(vdb_grids::sample(ours, everywhere), vdb_grids::sample(theirs, everywhere), 1e-5F,
               everywhere);
    EXPECT_NEAR(static_cast<double>(ours->activeVoxelCount()),
                static_cast<double>(theirs->activeVoxelCount()), 40);
    EXPECT_EQ(vdb_grids::as(ours)->background(), 3 * kVoxel);
    EXPECT_EQ(vdb_grids::metadata(ours, "class"), "level set");
    EXPECT_EQ(vdb_grids::metadata(ours, "name"), "a");
    auto const fog = vdb_grids::read(path, "fog"), theirFog = vdb_grids::fogOf(theirs);
    expectNear(vdb_grids::sample(fog, everywhere), vdb_grids::sample(theirFog, everywhere), 1e-4F,
               everywhere);
    EXPECT_EQ(vdb_grids::metadata(fog, "class"), "fog volume");
    EXPECT_EQ(vdb_grids::metadata(ours, "creator"), "vdb_test");
    // The other field is evaluated at the voxels of the first level set alone.
    std::vector<float3> active;
    for (auto const& [p, value] : vdb_grids::voxels(ours)) {
        EXPECT_LT(std::fabs(value), 3 * kVoxel);
        active.push_back(p);
    }
    auto const place = vdb_grids::read(path, "place");
    EXPECT_EQ(place->activeVoxelCount(), ours->activeVoxelCount());
    EXPECT_EQ(vdb_grids::sampleVectors(place, active), active);
}

TEST(WriteVdb, WritesDenseGridsAndHalves) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    zel::Box const box{{-1, -0.5F, 0.1F}, {1, 0.5F, 1}};
    auto const noise = Quern::makePtr<zel::ScalarFieldXPosition>();
    zel::writeVdb(
        path,
        {{"x", noise},
         {"p", {}, Quern::makePtr<zel::VectorFieldPosition>()},
         {"empty", Quern::makePtr<zel::ScalarFieldConstant>(0.0F), {}, VdbClass::kFogVolume}},
        box, kVoxel, {.half = true});
    auto const grid = vdb_grids::read(path, "x");
    EXPECT_EQ(grid->activeVoxelCount(), 33 * 17 * 15);
    for (auto const& [p, value] : vdb_grids::voxels(grid)) ASSERT_EQ(value, p.x);
    EXPECT_EQ(vdb_grids::read(path, "empty")->activeVoxelCount(), 0);
    EXPECT_EQ(vdb_grids::metadata(grid, "is_saved_as_half_float"), "true");
    auto const volume = zel::readVdbGrids(path, {"x", "p"});
    EXPECT_EQ(volume.scalar("x")->eval({0.25F, 0.03F, 0.5F}, 0), 0.25F);
    EXPECT_EQ(volume.vector("p")->eval({0.25F, -0.25F, 0.5F}, 0), (float3{0.25F, -0.25F, 0.5F}));
}

TEST(WriteVdb, WritesTheBytesOfOpenVdb) {
    Folder const folder;
    auto const ours = folder / "ours.vdb", theirs = folder / "theirs.vdb";
    auto const levelSet = vdb_grids::sphere(1, {}, kVoxel);
    for (auto const& grid : {levelSet, vdb_grids::fogOf(levelSet), vdb_grids::randomScalars(1),
                             vdb_grids::randomVectors(2)})
        for (bool const half : {false, true}) {
            vdb_grids::write(theirs, {{"a", grid}, {"b", grid}});
            zel::writeVdb(ours, zel::readVdbGrids(theirs, {"a", "b"}), {.half = half});
            vdb_grids::writeAgain(ours, theirs);
            constexpr std::size_t kEndOfUuid = 57;
            EXPECT_TRUE(support::contentOf(ours).substr(kEndOfUuid) ==
                        support::contentOf(theirs).substr(kEndOfUuid));
        }
}

TEST(WriteVdb, FacesOfBoxOfWholeNumberOfVoxels) {
    Folder const folder;
    // 0.7F is below 7 voxels of 0.1F, and 5.6F below 56 of them, where a tile begins.
    for (auto const& [most, index] : {std::pair{0.7F, "7"}, {5.6F, "56"}, {0.76F, "7"}})
        for (auto const& field :
             {VdbField{"a", ball({}, 1)}, VdbField{"a", ball({}, 1), {}, VdbClass::kLevelSet}}) {
            zel::WriteVdbOptions options;
            if (field.gridClass == VdbClass::kLevelSet) options.band = 100.0F;
            zel::writeVdb(folder / "a.vdb", {field}, {{-0.7F, 0, 0}, {most, most, most}}, 0.1F,
                          options);
            auto const metadata = zel::listVdb(folder / "a.vdb").front().metadata;
            EXPECT_EQ(metadata.at("file_bbox_min"), "-7, 0, 0");
            std::string const wanted = std::string(index) + ", " + index + ", " + index;
            EXPECT_EQ(metadata.at("file_bbox_max"), wanted);
        }
}

TEST(WriteVdb, RefusesAndLeavesNothing) {
    Folder const folder;
    auto const path = folder / "a.vdb";
    auto const solid = ball({}, 1);
    auto const write = [&](std::vector<VdbField> const& fields, zel::WriteVdbOptions const& options,
                           float voxel = kVoxel) {
        zel::writeVdb(path, fields, kBox, voxel, options);
    };
    EXPECT_THROW(write({{"a", solid, {}, VdbClass::kLevelSet}}, {}), std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}}, {.band = 3}), std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}, {"a", solid}}, {}), std::invalid_argument);
    EXPECT_THROW(write({{"a"}}, {}), std::invalid_argument);
    EXPECT_THROW(write({{"a\x1e"
                         "1",
                         solid}},
                       {}),
                 std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}}, {}, 0), std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}}, {}, 1e-12F), std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}}, {}, 1e-5F), std::invalid_argument);
    EXPECT_THROW(write({{"a", solid}}, {.metadata = {{"", "x"}}}), std::invalid_argument);
    auto const big = Quern::makePtr<zel::ScalarFieldConstant>(1e6F);
    EXPECT_THROW(write({{"a", big}}, {.half = true}), zel::FileError);
    auto const nan = Quern::makePtr<zel::ScalarFieldConstant>(std::nanf(""));
    EXPECT_THROW(write({{"a", nan}}, {}), zel::FileError);
    for (float const voxel : {0.5F, 0.2F, 0.1F, 0.05F}) {
        EXPECT_THROW(write({{"a", nan, {}, VdbClass::kLevelSet}}, {.band = 3}, voxel),
                     zel::FileError);
        EXPECT_THROW(zel::meshOf(*nan, kBox, voxel), std::invalid_argument);
    }
    for (int axis = 0; axis < 3; ++axis) {
        zel::Box box = kBox;
        box.low[axis] = 7.1F * kVoxel;
        box.high[axis] = 7.9F * kVoxel;
        EXPECT_THROW(zel::writeVdb(path, {{"a", solid}}, box, kVoxel), std::invalid_argument);
    }
    EXPECT_THROW(zel::writeVdb(folder / "none/a.vdb", {{"a", solid}}, kBox, 1), zel::FileError);
    std::stop_source stop;
    stop.request_stop();
    EXPECT_THROW(write({{"a", solid}}, {.stop = stop.get_token()}), zel::Stopped);
    EXPECT_EQ(folder.size(), 0U);
}

/// A volume that was made of fields, in both kinds of tree, and the grid of its level set.
template <class Traits> void writeBack(Folder const& folder) {
    auto const solid = ball({0.25F, 0, 0}, 1);
    auto const volume = zel::buildVolume<Traits>(*solid, kBox, kVoxel, 3.0F);
    Orvane::Object object;
    Orvane::Geometry::setVolume(object, zel::toVolumeObject({{"distance", volume}}));
    volume.channel->restart(3 * kVoxel, true, 0, Traits::kMaxDepth);
    volume.channel->update(*volume.topology);
    zel::fillChannel<Traits>(*volume.channel, *volume.topology, *solid);
    auto const path = folder / "a.vdb";
    zel::writeVdb(path, object, {{"distance", VdbClass::kLevelSet}});
    auto const grid = vdb_grids::read(path, "distance");
    auto const theirs = vdb_grids::sphere(1, {0.25F, 0, 0}, kVoxel);
    std::vector<float3> at;
    for (auto const& [p, value] : vdb_grids::voxels(theirs)) at.push_back(p);
    at.push_back({0.25F, 0, 0});
    at.push_back({0, 1.5F, 0});
    expectNear(vdb_grids::sample(grid, at), vdb_grids::sample(theirs, at), 1e-5F, at);
    EXPECT_NEAR(static_cast<double>(grid->activeVoxelCount()),
                static_cast<double>(theirs->activeVoxelCount()), 40);
    EXPECT_THROW(zel::writeVdb(path, object, {{"distance"}}), std::invalid_argument);
    EXPECT_THROW(zel::writeVdb(path, object, {{"density"}}), std::invalid_argument);
}

TEST(WriteVdb, WritesVolumesOfFields) {
    Folder const folder;
    writeBack<zel::BinaryTraits>(folder);
    writeBack<zel::QuinaryTraits>(folder);
}

/// The volume within a mesh. Expects that each edge has as many faces in one direction as in the
/// other.
double volumeIn(zel::Mesh const& mesh) {
    std::vector<std::array<std::uint32_t, 3>> faces = mesh.triangles;
    for (auto const& q : mesh.quads) {
        faces.push_back({q[0], q[1], q[2]});
        faces.push_back({q[0], q[2], q[3]});
    }
    double volume = 0;
    std::map<std::pair<std::uint32_t, std::uint32_t>, int> edges;
    for (auto const& face : faces) {
        auto const &a = mesh.positions[face[0]], &b = mesh.positions[face[1]],
                   &c = mesh.positions[face[2]];
        volume += double{Orvane::Math::dot(a, Orvane::Math::cross(b, c))} / 6;
        for (std::size_t i = 0; i < 3; ++i) {
            ++edges[{face[i], face[(i + 1) % 3]}];
            --edges[{face[(i + 1) % 3], face[i]}];
        }
    }
    for (auto const& [edge, balance] : edges) EXPECT_EQ(balance, 0);
    return volume;
}

TEST(MeshOf, MakesClosedSurfacesThatFaceOutwards) {
    auto const solid = ball({0.1F, 0.2F, 0}, 1);
    std::size_t most = 0;  // of faces
    for (float const adaptivity : {0.0F, 0.2F}) {
        zel::MeshOptions options;
        options.adaptivity = adaptivity;
        options.colour = Quern::makePtr<zel::VectorFieldPosition>();
        zel::Mesh const mesh = zel::meshOf(*solid, kBox, kVoxel, options);
        ASSERT_EQ(mesh.normals.size(), mesh.positions.size());
        EXPECT_EQ(mesh.colours, mesh.positions);
        for (auto const& p : mesh.positions) EXPECT_NEAR(solid->eval(p, 0), 0, kVoxel / 2);
        // An adaptive mesh cuts off a part between its fewer faces.
        EXPECT_NEAR(volumeIn(mesh), 4.18879, adaptivity > 0 ? 0.7 : 0.05);
        std::size_t const faces = mesh.triangles.size() + 2 * mesh.quads.size();
        if (adaptivity > 0) {
            EXPECT_LT(faces, most / 2);
        }
        most = faces;
    }
    zel::MeshOptions wrong;
    wrong.adaptivity = std::nanf("");
    EXPECT_THROW(zel::meshOf(*solid, kBox, kVoxel, wrong), std::invalid_argument);
}

TEST(MeshOf, ClosesSolidsAtTheBox) {
    auto const solid = ball({}, 1);
    auto const half = Quern::makePtr<zel::ScalarFieldXPosition>();
    auto const all = Quern::makePtr<zel::ScalarFieldConstant>(-9.0F);
    struct Case {
        zel::ScalarPtr field;
        zel::Box box;
        double volume;
    };
    for (auto const& [field, box, volume] :
         {Case{solid, {{0, -2, -2}, {2, 2, 2}}, 2.0944},
          {solid, {{-2, -2, -2}, {2, 0.22F, 0.01F}}, 1.4073},
          {half, {{-2, -2, -1}, {2, 2, 1}}, 16},
          {half, {{-1.97F, -2, -0.99F}, {2, 1.96F, 1}}, 15.524},
          {all, {{-1.5F, -1.5F, -1.5F}, {1.5F, 1.5F, 1.5F}}, 27}}) {
        zel::Mesh const mesh = zel::meshOf(*field, box, kVoxel);
        // Where faces meet, the mesh cuts the edge off, by 0.75 * kVoxel^2 of its section.
        EXPECT_NEAR(volumeIn(mesh), volume, 1.2e-2 * volume);
        for (std::size_t i = 0; i < mesh.positions.size(); ++i) {
            double distance = 1;  // from the nearest face
            for (int axis = 0; axis < 3; ++axis)
                for (float const face : {box.low[axis], box.high[axis]}) {
                    float const p = mesh.positions[i][axis];
                    distance = std::min(distance, std::abs(double{p} - double{face}));
                }
            float const f = field->eval(mesh.positions[i], 0);
            EXPECT_LT(std::min(double{std::abs(f)}, distance), 0.7F * kVoxel);
            float3 const& n = mesh.normals[i];
            if (f < -2 * kVoxel) {
                EXPECT_EQ(std::abs(n.x) + std::abs(n.y) + std::abs(n.z), 1);
            }
        }
    }
}

}  // namespace
