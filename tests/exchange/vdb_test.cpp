#include "zel_exchange/vdb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <random>
#include <regex>

#include "exchange/vdb_grids.h"
#include "zel/zel.h"
#include "zel_exchange/error.h"

namespace {

using vdb_grids::float3;
using vdb_grids::GridPtr;
using zel::VdbTree;

constexpr VdbTree kTrees[] = {VdbTree::kBinary, VdbTree::kQuinary};

/// A folder for the files of a test, which its destructor removes.
class Folder {
public:
    Folder() {
        std::string name = std::filesystem::temp_directory_path() / "vdb_test-XXXXXX";
        m_path = mkdtemp(name.data());
    }
    Folder(Folder const&) = delete;
    Folder& operator=(Folder const&) = delete;
    ~Folder() { std::filesystem::remove_all(m_path); }
    std::string operator/(char const* name) const { return m_path / name; }
    std::size_t size() const {
        return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(m_path),
                                                      std::filesystem::directory_iterator()));
    }

private:
    std::filesystem::path m_path;
};

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

TEST(ReadVdb, AgreesWithBoxSampler) {
    Folder const folder;
    auto const ball = vdb_grids::sphere(1.5F, {0.25F, 0, -0.5F}, 0.0625F);
    struct Case {
        GridPtr grid;
        float near, far;
    };
    std::vector<Case> cases{
        {ball, 2, 5},
        {vdb_grids::fogOf(ball), 2, 5},
        {vdb_grids::smoothed(vdb_grids::dodecahedron(1, {0, 1, 0}, 0.0625F)), 2, 3},
        {vdb_grids::inDouble(ball), 2, 5}};
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

}  // namespace
