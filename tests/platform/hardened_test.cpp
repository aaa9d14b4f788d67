#include <gtest/gtest.h>

#include "zel/zel.h"

namespace {

TEST(HardenedDeathTest, NamesTheBrokenPrecondition) {
    Quern::Array<float> const array(3, 1.0F);
    long long volatile three = 3;
    EXPECT_DEATH((void)array[three], "array.h:[0-9]+: broken precondition: 0 <= i && i < length");
    Quern::Ptr<zel::ScalarField> const none;
    EXPECT_DEATH((void)none->eval({}, 0), "ptr.h:[0-9]+: broken precondition: pointee");
    zel::float3 const vector;
    EXPECT_DEATH((void)vector[static_cast<int>(three)], "vectors.h:[0-9]+: broken precondition");
    ORV::TileTree3D::TileData<float, 4, 0, 0> const tile(64);
    EXPECT_DEATH((void)tile(0, 0, 4), "tile_data.h:[0-9]+: broken precondition: .*k < W");
    using Traits = ORV::TileTree3D::BinaryTraits;
    auto const tree = Quern::makePtr<ORV::TileTree3D::Container<Traits>>(1.0F);
    ORV::TileTree3D::DataChannel<Traits, float> const stale("", nullptr, 0, false, true, 0, 1);
    EXPECT_DEATH((void)stale.tileData(tree->addTile(0, 0, 0, 0))(0, 0, 0),
                 "tile_data.h:[0-9]+: broken precondition: m_flat");
#ifndef NDEBUG  // the libraries check, too
    zel::ScalarFieldNegative const orphan(none);
    EXPECT_DEATH((void)orphan.eval({}, 0), "ptr.h:[0-9]+: .*pointee");
#endif
}

}  // namespace
