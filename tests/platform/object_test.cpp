#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "support/refused.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/orvane_geometry_volume/object.h"

namespace {

using namespace Orvane::Geometry;
using Orvane::Object;
using Orvane::pointerProperty;
using Quern::Array;
using Quern::makePtr;

TEST(Object, HoldsEntriesOfAnyType) {
    Object object;
    EXPECT_TRUE(object.property("a").empty());
    object.setProperty("a", 1);
    object.setProperty("b", Quern::Any());
    Object copy = object;
    copy.setProperty("a", makePtr<int>(3));
    copy.removeProperty("b");
    copy.removeProperty("never there");
    EXPECT_EQ(*object.property("a").get<int>(), 1);
    EXPECT_EQ(*pointerProperty<int>(copy, "a"), 3);
    EXPECT_FALSE(pointerProperty<int const>(copy, "a"));
    EXPECT_TRUE(object.hasProperty("b"));
    EXPECT_FALSE(copy.hasProperty("b"));
    EXPECT_THROW(object.setProperty("", 1), std::invalid_argument);
}

TEST(GeoProperty, IsStoredWholeOrNotAtAll) {
    Object object;
    auto const data = makePtr<Array<short>>(3LL, short{7});
    auto const indices = makePtr<Array<unsigned int>>(2LL, 5U);
    setGeoProperty(object, "id", short{-1}, data, "points");
    setGeoProperty(object, "plain", 0.5F, makePtr<Array<float>>());
    setRangeGeoPropIndices(object, "points", indices);
    auto const refused = [](auto const& call, char const* named) {
        support::expectRefused<std::invalid_argument>(call, named);
    };
    refused([&] { setGeoProperty(object, "", short{3}, data); }, "name is empty");
    refused([&] { setGeoProperty<short>(object, "id", 3, nullptr); }, "\"id\"");
    refused([&] { setRangeGeoPropIndices(object, "points", nullptr); }, "\"points\"");
    refused([&] { setVolume(object, nullptr); }, "no volume");
    auto const property = pointerProperty<Object>(object, "id");
    EXPECT_EQ(*property->property(sDefault).get<short>(), -1);
    EXPECT_EQ(pointerProperty<Array<short>>(*property, sData), data);
    EXPECT_EQ(getGeoPropTargetName(object, "id"), "points");
    EXPECT_TRUE(getGeoPropTargetName(object, "plain").empty());
    EXPECT_TRUE(getGeoPropTargetName(object, "none").empty());
    EXPECT_EQ(getRangeGeoPropIndices(object, "points"), indices);
    EXPECT_FALSE(getRangeGeoPropIndices(object, ""));
}

// What the library keeps in an object shares no name with what a caller keeps there.
TEST(GeoProperty, OfAnyNameLeavesVolumeAndRangeIndicesAlone) {
    Object object;
    auto const volume = makePtr<ORV::Object>();
    auto const part = makePtr<ORV::TileTree3D::Container<ORV::TileTree3D::BinaryTraits>>(1.0f);
    volume->setComponent("part", part);
    auto const indices = makePtr<Array<unsigned int>>(2LL, 5U);
    std::string const reserved = sVolume;
    std::string const stem = reserved.substr(0, reserved.size() - 6);
    for (std::string const& name :
         {std::string("volume"), std::string("range indices of "), std::string("target"), reserved,
          reserved + "\n", stem, stem + "range indices of points", std::string()}) {
        setVolume(object, volume);
        for (auto const& target : {std::string("points"), name})
            if (!target.empty()) setRangeGeoPropIndices(object, target, indices);
        bool const free = !name.empty() && !name.starts_with("Orvane::");
        auto const set = [&](auto const& call) {
            if (free)
                call();
            else
                support::expectRefused<std::invalid_argument>(call, name.empty() ? "empty"
                                                                                 : name.c_str());
        };
        set([&] { object.setProperty(name, 1); });
        set([&] { setGeoProperty(object, name, 2.0F, makePtr<Array<float>>()); });
        EXPECT_EQ(getGeoPropTargetName(object, name), "");
        EXPECT_EQ(static_cast<bool>(pointerProperty<Object>(object, name)), free);
        if (!name.empty()) set([&] { object.removeProperty(name); });
        auto const found = shallow_copy_object_to_orv_volume(object);
        ASSERT_TRUE(found) << name;
        EXPECT_EQ(found->component<ORV::Component>("part"), part);
        found->setComponent("part", {});  // the copy's own list of components
        EXPECT_EQ(getRangeGeoPropIndices(object, "points"), indices);
        EXPECT_EQ(getRangeGeoPropIndices(object, name), name.empty() ? nullptr : indices);
    }
}

}  // namespace
