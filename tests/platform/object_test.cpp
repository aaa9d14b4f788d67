#include <functional>
#include <stdexcept>

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
using support::expectRefused;

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
    EXPECT_TRUE(object.hasProperty("b") && !copy.hasProperty("b"));
}

TEST(GeoProperty, IsStoredWholeOrNotAtAll) {
    Object object;
    auto const data = makePtr<Array<short>>(3LL, short{7});
    setGeoProperty(object, "id", short{-1}, data, "points");
    setGeoProperty(object, "plain", 0.5F, makePtr<Array<float>>());
    using Refused = std::invalid_argument;
    expectRefused<Refused>([&] { setGeoProperty<short>(object, "id", 3, nullptr); }, "\"id\"");
    expectRefused<Refused>([&] { setRangeGeoPropIndices(object, "all", nullptr); }, "\"all\"");
    expectRefused<Refused>([&] { setVolume(object, nullptr); }, "no volume");
    auto const property = pointerProperty<Object>(object, "id");
    EXPECT_EQ(*property->property(sDefault).get<short>(), -1);
    EXPECT_EQ(pointerProperty<Array<short>>(*property, sData), data);
    EXPECT_EQ(getGeoPropTargetName(object, "id"), "points");
    EXPECT_TRUE(getGeoPropTargetName(object, "plain").empty());
    EXPECT_TRUE(getGeoPropTargetName(object, "none").empty());
}

// The library's entries of an object share no name with a caller's.
TEST(GeoProperty, OfAnyNameLeavesVolumeAndRangeIndicesAlone) {
    auto const volume = makePtr<ORV::Object>();
    auto const part = makePtr<ORV::TileTree3D::Container<ORV::TileTree3D::BinaryTraits>>(1.0f);
    volume->setComponent("part", part);
    auto const indices = makePtr<Array<unsigned int>>(2LL, 5U);
    std::string const reserved = sVolume, stem = reserved.substr(0, reserved.size() - 6);
    for (std::string const& name :
         {std::string("volume"), std::string("range indices of "), std::string("target"), reserved,
          reserved + "\n", stem, stem + "range indices of points", std::string()}) {
        SCOPED_TRACE(name);
        Object object;
        setVolume(object, volume);
        setRangeGeoPropIndices(object, "points", indices);
        if (!name.empty()) setRangeGeoPropIndices(object, name, indices);
        bool const free = !name.empty() && !name.starts_with("Orvane::");
        std::function<void()> const calls[] = {
            [&] { object.setProperty(name, 1); },
            [&] { setGeoProperty(object, name, 2.0F, makePtr<Array<float>>()); },
            [&] { object.removeProperty(name); }};
        for (auto const& call : calls) {
            if (free)
                call();
            else if (!name.empty() || &call != &calls[2])
                expectRefused<std::invalid_argument>(call, name.empty() ? "empty" : name);
            EXPECT_EQ(getGeoPropTargetName(object, name), "");
            auto const found = shallow_copy_object_to_orv_volume(object);
            ASSERT_TRUE(found);
            EXPECT_EQ(found->component<ORV::Component>("part"), part);
            found->setComponent("part", {});  // the copy's own list of components
            EXPECT_EQ(getRangeGeoPropIndices(object, "points"), indices);
            EXPECT_EQ(getRangeGeoPropIndices(object, name), name.empty() ? nullptr : indices);
        }
    }
}

}  // namespace
