#include <optional>
#include <random>
#include <stdexcept>

#include "examples/binder.h"
#include "support/probe.h"

// The nodes that read geometry properties: what they bind to, and what they read then.
namespace {

using namespace zel;
using namespace support;
using namespace Orvane::Geometry;
using Orvane::Object;
using Quern::Any;
using Quern::Array;
using Scalar = ScalarGeoPropertyTriggered;
using Vector = VectorGeoPropertyTriggered;

template <class T> Quern::Ptr<Array<T>> arrayOf(std::vector<T> const& list) {
    auto array = makePtr<Array<T>>();
    for (T const value : list) array->push_back(value);
    return array;
}

/// An object with a property "p" made by hand, in which what is empty has no entry.
Object objectOf(Any defaultValue, Any data = {}) {
    auto const property = makePtr<Object>();
    if (!defaultValue.empty()) property->setProperty(sDefault, std::move(defaultValue));
    if (!data.empty()) property->setProperty(sData, std::move(data));
    Object object;
    object.setProperty("p", property);
    return object;
}
Any floats(float first) {
    return arrayOf<float>({first, 51});
}

template <class Node> Node bound(Object const& object) {
    Node node("p");
    node.apply_object(object);
    return node;
}

/// The first of the values is the default too.
template <class T>
void checkType(std::vector<T> const& values, std::vector<float> const& expected) {
    SCOPED_TRACE(typeNameOf(typeid(T)).c_str());
    auto const node = bound<Scalar>(objectOf(T(values[0]), arrayOf(values)));
    auto const count = static_cast<long long>(values.size());
    for (long long i = 0; i < count; ++i)
        EXPECT_TRUE(same(node.eval(kPosition, i), expected[static_cast<std::size_t>(i)])) << i;
    for (long long const outside :
         {-1LL, count, kIndex, 1LL << 32, std::numeric_limits<long long>::max(),
          std::numeric_limits<long long>::min()})
        EXPECT_TRUE(same(node.eval(kPosition, outside), expected[0])) << outside;
}

TEST(StoredTypes, ReadAtTheirExtremes) {
    constexpr auto kMin = std::numeric_limits<long long>::min();
    constexpr unsigned long long kTop = 1ULL << 63, kHalf = 1ULL << 39;  // of the step of a float
    checkType<float>({0.1F, -kInf, kLeast, kNaN}, {0.1F, -kInf, kLeast, kNaN});
    checkType<signed char>({-128, 127, -1}, {-128, 127, -1});
    checkType<short>({-32768, 32767, -1}, {-32768, 32767, -1});
    checkType<int>({-2147483647 - 1, 16777217, -1}, {-0x1p31F, 0x1p24F, -1});
    checkType<long long>({kMin, -1, 0x7FFFFFFFFFFFFFFF}, {-0x1p63F, -1, 0x1p63F});
    checkType<unsigned char>({255, 128, 0}, {255, 128, 0});
    checkType<unsigned short>({65535, 32768}, {65535, 32768});
    checkType<unsigned int>({4294967295, 2147483904}, {0x1p32F, 0x1.000002p31F});
    checkType<unsigned long long>({kTop + kHalf, kTop + kHalf + 1, kTop + 3 * kHalf, ~0ULL, 1},
                                  {0x1p63F, 0x1.000002p63F, 0x1.000004p63F, 0x1p64F, 1});
    checkType<bool>({true, false}, {1, 0});
    checkType<double>({1e300, -1e300, 0.1, 1e-300, kNaN}, {kInf, -kInf, 0.1F, 0, kNaN});
}

/// What a node reads at 0 and answers at 9, a new one and one that was bound to `old`.
template <class Node> struct BindRow {
    Object object;
    typename Node::Value element, defaultValue, rebound, reboundDefault;
};
template <class Node> void check(Object const& old, std::vector<BindRow<Node>> const& rows) {
    for (auto const& row : rows) {
        SCOPED_TRACE(&row - rows.data());
        auto const fresh = bound<Node>(row.object);
        auto again = bound<Node>(old);
        again.apply_object(row.object);
        EXPECT_TRUE(same(fresh.eval(kPosition, 0), row.element, kRounding));
        EXPECT_TRUE(same(fresh.eval(kPosition, 9), row.defaultValue, kRounding));
        EXPECT_TRUE(same(again.eval(kPosition, 0), row.rebound, kRounding));
        EXPECT_TRUE(same(again.eval(kPosition, 9), row.reboundDefault, kRounding));
        EXPECT_EQ(again.grad(kPosition, 0), typename Node::Gradient{});
    }
}

TEST(Binding, FallsThroughInOrder) {
    Any const shorts = arrayOf<short>({7}), doubles = arrayOf<double>({7});
    Object absent, number, null;
    number.setProperty("p", 1.0F);
    null.setProperty("p", Quern::Ptr<Object>());
    struct Hiding : Object {
        bool hasProperty(Quern::StringView) const override { return false; }
    };
    Quern::Ptr<Object> const hiding = makePtr<Hiding>();
    hiding->setProperty(sDefault, 3.0F);
    hiding->setProperty(sData, floats(50));
    Object hidden;
    hidden.setProperty("p", hiding);
    check<Scalar>(objectOf(71.0F, floats(70)),
                  {{absent, 0, 0, 70, 71},
                   {number, 0, 0, 70, 71},
                   {null, 0, 0, 70, 71},
                   {objectOf(3.0F, floats(50)), 50, 3, 50, 3},
                   {objectOf(3.0F), 3, 3, 3, 3},
                   {hidden, 3, 3, 3, 3},
                   {objectOf(3.0F, doubles), 3, 3, 3, 3},
                   {objectOf(3.0F, makePtr<Array<float>>()), 3, 3, 3, 3},  // bound, but empty
                   {objectOf(short{3}, shorts), 7, 3, 70, 3},              // floats come first
                   {objectOf(short{3}, floats(50)), 50, 0, 50, 71},
                   {objectOf(short{3}, doubles), 0, 0, 71, 71},
                   {objectOf(3L, floats(50)), 50, 0, 50, 71},  // long is none of the types
                   {objectOf(Any(), floats(50)), 50, 0, 50, 71}});
    // A converter stays through a binding to floats, and is read again when they are gone.
    check<Scalar>(objectOf(4.0, makePtr<Array<double>>(10LL, 7.0)),
                  {{objectOf(3.0F, floats(50)), 50, 3, 50, 3}, {objectOf(3.0F), 3, 3, 7, 7}});

    float4 const half{0, 0, 2, 0}, quarter{0, 3, 0, 3};
    float3 const turn{0, 0, 3.1415927F}, dflt{0, 1.5707963F, 0};
    Any const vectors = arrayOf<float3>({kA}), rotations = arrayOf<float4>({half});
    check<Vector>(objectOf(kT, arrayOf<float3>({kB})),
                  {{absent, {}, {}, kB, kT},
                   {objectOf(kA, vectors), kA, kA, kA, kA},
                   {objectOf(kA, rotations), kA, kA, kA, kA},
                   {objectOf(quarter, rotations), turn, dflt, kB, kT},
                   {objectOf(quarter, vectors), {}, {}, kB, kT},
                   {objectOf(1.0F, vectors), {}, {}, kB, kT}});
    check<Vector>(objectOf(quarter, rotations), {{objectOf(kT, vectors), kA, kT, kA, kT},
                                                 {objectOf(kT), kT, kT, turn, dflt},
                                                 {objectOf(half), {}, {}, {}, {}}});

    struct Broken : Object {
        Any property(Quern::StringView key) const override { throw std::range_error(key.c_str()); }
    };
    EXPECT_THROW(Scalar("p").apply_object(Broken()), std::range_error);
}

TEST(Binding, TakesTheRangeOfItsTarget) {
    auto const check = [](auto node, auto first, auto second, auto defaultValue) {
        auto const apply = [&](Quern::StringView target, bool hasRange, bool hasData = true) {
            Object object;
            setGeoProperty(object, "p", defaultValue, arrayOf(std::vector{first, second}), target);
            if (!hasData) Orvane::pointerProperty<Object>(object, "p")->removeProperty(sData);
            if (hasRange) setRangeGeoPropIndices(object, target, arrayOf<unsigned int>({1}));
            node.apply_object(object);
            return node.eval(kPosition, 0);
        };
        auto const plain = apply("points", false);
        EXPECT_EQ(apply(sVoxelTileTree, true), plain);  // not asked for
        auto const mapped = apply("points", true);
        EXPECT_NE(mapped, plain);
        apply("points", false, false);                    // no values, no look at the range
        EXPECT_EQ(apply(sVoxelTileTree, false), mapped);  // kept
        EXPECT_EQ(apply("points", false), plain);         // replaced by none
    };
    check(Scalar("p"), 1.0F, 2.0F, 3.0F);
    check(Scalar("p"), 1ULL, 2ULL, 3ULL);
    check(Vector("p"), kA, kB, kT);
    check(Vector("p"), float4{1, 0, 0, 0}, float4{0, 1, 0, 0}, float4{});
}

/// The entry of `array` for a key, found by a search.
template <class T>
std::optional<long long> look(Quern::Ptr<Array<T>> const& array, std::optional<long long> key) {
    std::optional<long long> found;
    for (long long k = 0; k < array->size(); ++k)
        if (key == k) found = (*array)[k];
    return found;
}

/// Random maps: which element is read, and that the found node tells whether one is.
template <class Node, class Found, class T>
void checkMaps(bool takesMap, T const& defaultValue, std::vector<T> const& values) {
    std::mt19937 random(47);
    auto const upTo = [&](unsigned most) { return static_cast<unsigned>(random() % (most + 1)); };
    for (int round = 0; round < 300; ++round) {
        auto const data = arrayOf(values);
        data->resize(upTo(4));
        Object object;
        setGeoProperty(object, "p", defaultValue, data, "points");
        auto const plain = bound<Node>(object);
        auto const map = makePtr<Array<long long>>(round % 2 ? 1LL + upTo(6) : 0LL);
        for (auto& i : *map) i = upTo(3) ? upTo(5) - 1LL : upTo(1) ? kIndex : (1LL << 32) - upTo(1);
        auto const range = makePtr<Array<unsigned int>>(static_cast<long long>(upTo(6)));
        for (auto& i : *range) i = upTo(3) ? upTo(5) : 4294967295 - upTo(1);
        if (round % 3) setRangeGeoPropIndices(object, "points", range);
        Node node("p");
        Found found("p");
        for (Field* const field : {static_cast<Field*>(&node), static_cast<Field*>(&found)}) {
            field->use_property_indices(arrayOf<long long>({1}));  // not bound yet
            field->apply_object(object);
            field->use_property_indices(map);
            field->use_property_indices(makePtr<Array<long long>>());  // cannot clear it
        }
        for (long long i = -2; i < 10; ++i) {
            std::optional<long long> place = i;
            if (takesMap && !map->empty()) place = look(map, place);
            if (round % 3) place = look(range, place);
            bool const isRead = 0 <= place && place < data->size();
            EXPECT_TRUE(same(node.eval(kPosition, i), plain.eval(kPosition, place.value_or(-1))));
            EXPECT_EQ(found.eval(kPosition, i), isRead ? 1 : 0) << round << " " << i;
            EXPECT_EQ(found.grad(kPosition, i), float3{});
        }
    }
    EXPECT_EQ(Found("p").eval(kPosition, 0), 0);
}

TEST(IndexMaps, LeadToTheElementThatIsReadAndFound) {
    checkMaps<Scalar, ScalarGeoPropertyFound>(true, -1.0F, {1, 2, 3, 4});
    checkMaps<Scalar, ScalarGeoPropertyFound>(false, short{-1}, {1, 2, 3, 4});
    checkMaps<Vector, VectorGeoPropertyFound>(true, kT, {kA, kB, kT + kA, kT + kB});
    checkMaps<Vector, VectorGeoPropertyFound>(
        false, float4{}, {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 1, 1}});
}

/// Batches of a node, also by the branches of a switch, before and after it has a map.
template <class Switch, class Node, class T>
void checkBlocks(Node&& node, T const& defaultValue, T const& step) {
    std::vector<T> values(600);
    std::vector<long long> map(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        values[i] = static_cast<T>(static_cast<float>(i) * step);
        map[i] = 598 - static_cast<long long>(i);
    }
    node.apply_object(objectOf(defaultValue, arrayOf(values)));
    std::vector<float3> positions(300);
    for (std::size_t i = 0; i < positions.size(); ++i) positions[i].x = i % 3 == 0 ? 1 : -1;
    std::vector<typename Node::Value> read(positions.size()), chosen(positions.size());
    constexpr long long kLast = std::numeric_limits<long long>::max();
    EvaluateOptions options;
    for (bool const isMapped : {false, true}) {
        if (isMapped) node.use_property_indices(arrayOf(map));
        Switch const tree(makePtr<ScalarFieldXPosition>(), makePtr<Node>(node),
                          makePtr<Node>(node));
        for (long long const first : {-300LL, -1LL, 0LL, 5LL, 299LL, 300LL, 301LL, 344LL, 600LL,
                                      kLast - 256, kLast - 255, kLast}) {
            options.firstIndex = first;
            evaluate(node, PointView::of(positions), read, options);
            evaluate(tree, PointView::of(positions), chosen, options);
            for (std::size_t i = 0; i < read.size(); ++i) {
                auto const element = static_cast<unsigned long long>(first) + i;
                auto const expected = node.eval(kPosition, static_cast<long long>(element));
                ASSERT_TRUE(read[i] == expected && chosen[i] == expected) << first << " " << i;
            }
        }
    }
}

TEST(Blocks, ReadWhatPointsReadAtTheEndsOfAnArray) {
    checkBlocks<ScalarFieldSwitch>(Scalar("p"), -1.0F, 1.0F);
    checkBlocks<ScalarFieldSwitch>(Scalar("p"), short{-1}, short{1});
    checkBlocks<VectorFieldSwitch>(Vector("p"), kT, kA);
    checkBlocks<ScalarFieldSwitch>(ScalarGeoPropertyFound("p"), -1.0F, 1.0F);
}

TEST(Copies, ShareWhatIsBoundAndTakeTheName) {
    auto node = bound<Scalar>(objectOf(-1.0F, arrayOf<float>({10, 11, 12})));
    auto const map = arrayOf<long long>({2, 2});
    node.use_property_indices(map);
    node.use_property_indices(nullptr);
    Scalar assigned("other name");
    assigned = node;
    (*map)[0] = 1;
    EXPECT_TRUE(node.eval(kPosition, 0) == 11 && assigned.eval(kPosition, 0) == 11);
    node.use_property_indices(arrayOf<long long>({0}));
    EXPECT_TRUE(node.eval(kPosition, 0) == 10 && assigned.eval(kPosition, 0) == 11);
    assigned.apply_object(objectOf(-1.0F, arrayOf<float>({20, 21})));  // which keeps the map
    EXPECT_TRUE(node.eval(kPosition, 0) == 10 && assigned.eval(kPosition, 0) == 21);
}

TEST(RotationVector, IsTheAxisTimesTheAngle) {
    auto const vectorOf = [](float4 const& q) {
        return bound<Vector>(objectOf(float4{}, arrayOf<float4>({q}))).eval(kPosition, 0);
    };
    std::mt19937 random(43);
    std::uniform_real_distribution<double> unit(-1, 1), angles(0.05, 6.2), scales(0.001, 1000);
    for (int n = 0; n < 500; ++n) {
        double const v[] = {unit(random), unit(random), unit(random)}, angle = angles(random);
        double const norm = std::hypot(v[0], v[1], v[2]), scale = scales(random);  // not unit
        auto const f = [&](int c) {
            return static_cast<float>(scale * std::sin(angle / 2) * v[c] / norm);
        };
        auto const w = static_cast<float>(scale * std::cos(angle / 2));
        float3 const got = vectorOf({f(0), f(1), f(2), w});
        for (int c = 0; c < 3; ++c) EXPECT_NEAR(got[c], v[c] / norm * angle, 2e-3) << angle;
    }
    for (float4 const& none : {float4{0, 0, 0, 1}, float4{0, 0, 0, -1}, float4{},
                               float4{kNaN, 0, 0, 1}, float4{1e38F, 0, 0, 1e38F}})
        EXPECT_EQ(vectorOf(none), float3{});
    // A half angle below 1e-6 turns about z, one from there to 1e-3 does not turn.
    EXPECT_TRUE(same(vectorOf({5e-7F, 0, 0, 1}), {0, 0, 1e-6F}));
    for (float const half : {2e-6F, 5e-4F}) EXPECT_EQ(vectorOf({half, 0, 0, 1}), float3{});
    EXPECT_NEAR(vectorOf({3e-3F, 0, 0, 1}).x, 6e-3F, 1e-4F);
}

TEST(Binder, BindsASharedSubtreeForEachTreeAlone) {
    ScalarPtr const leaf = makePtr<Scalar>("p");
    ScalarPtr const shared = makePtr<ScalarFieldAdd>(leaf, leaf);
    ScalarPtr const tree = makePtr<ScalarFieldNegative>(shared);
    auto const first = bindTree(tree, objectOf(3.0F, floats(50)));
    auto const second = bindTree(shared, objectOf(4.0F, floats(60)), arrayOf<long long>({1, 0}));
    EXPECT_EQ(first->eval(kPosition, 0), -2 * 50);
    EXPECT_EQ(second->eval(kPosition, 0), 2 * 51);
    EXPECT_EQ(second->eval(kPosition, 1), 2 * 60);
    for (auto const& unbound : {leaf, shared, tree}) EXPECT_EQ(unbound->eval(kPosition, 0), 0);
}

}  // namespace
