// Reads any text as a scene. A text that is read must be written to one that gives the same tree,
// the same hash and the same text again. The tree is then bound to an object, and evaluated: a
// batch must have the bits of point calls.

#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <limits>
#include <string_view>
#include <vector>

#include "cost.h"
#include "expect.h"
#include "zel/zel.h"
#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_scene/bind.h"
#include "zel_scene/compare.h"
#include "zel_scene/describe.h"
#include "zel_scene/json.h"

namespace {

using zel::float3;

template <class T> Quern::Ptr<Quern::Array<T>> arrayOf(std::initializer_list<T> list) {
    return Quern::makePtr<Quern::Array<T>>(list);
}

/// What the leaves of examples/scenes read: a volume with the channels "values" and "velocity", and
/// the properties "radius" and "center".
Orvane::Object makeObject() {
    using namespace Orvane::Geometry;
    Orvane::Object object;
    auto const radius = arrayOf<float>({1.0F, 2.0F, 0.5F});
    auto const center = arrayOf<float3>({{0, 0, 0}, {1, 0, 2}, {0, -1, 0}});
    setGeoProperty(object, "radius", 1.0F, radius, "points");
    setGeoProperty(object, "center", float3{}, center, "points");
    auto const elements = arrayOf<unsigned>({0U, 1U, 2U, 1U});
    setRangeGeoPropIndices(object, "points", elements);
    zel::Box const box{{-1, -1, -1}, {1, 1, 1}};
    auto const values = zel::buildVolume<zel::BinaryTraits>(
        zel::ScalarFieldSphere(float3{0, 0, 0}, 0.7F), box, 0.1F, 2);
    auto const velocity = zel::buildVolume(values, zel::VectorFieldPosition());
    setVolume(object, zel::toVolumeObject({{"values", values}, {"velocity", velocity}}));
    return object;
}

/// Positions near the origin, on lattices, far out and beyond all numbers.
std::vector<float3> positions() {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    std::vector<float3> list{{0, 0, 0},      {0.5F, 0.25F, -1}, {-0.0F, 1e-38F, 1e-42F},
                             {1e38F, -1, 3}, {-3e9F, 5, 7e9F},  {kInfinity, 0, 1},
                             {1, NAN, 2}};
    for (int i = 0; i < 70; ++i) {
        auto const x = static_cast<float>(i);
        list.push_back({std::sin(x), std::sin(3 * x), std::sin(7 * x)});
    }
    return list;
}

template <class Node> void evaluateAndCompare(Node const& field) {
    static std::vector<float3> const points = positions();
    auto const count = points.size();
    std::vector<decltype(field.eval(float3{}, 0))> values(count);
    std::vector<decltype(field.grad(float3{}, 0))> gradients(count);
    evaluate(field, zel::PointView::of(points), values, gradients);
    for (std::size_t i = 0; i < count; i += 3) {
        auto const index = static_cast<long long>(i);
        expect(same(field.eval(points[i], index), values[i]));
        expect(same(field.grad(points[i], index), gradients[i]));
    }
}

void bindAndEvaluate(zel::Tree& tree) {
    static Orvane::Object const object = makeObject();
    zel::BindReport const report = bind(tree, object);
    for (zel::Binding const& binding : report.bindings)
        expect(!binding.path().empty() && !binding.reason().empty());
    std::visit(
        [](auto const& root) {
            if (Cost()(root) > 300) return;
            evaluateAndCompare(*root);
            evaluateAndCompare(*withExactGradients(root));
        },
        tree);
}

/// Reads a text with a root of a given kind, which may be shorter.
template <class Read>
void readAs(Read read, std::string_view text, zel::SceneLimits const& limits) {
    try {
        expect(sameTree(read(text, limits, nullptr), read(text, limits, nullptr)));
    } catch (zel::SceneError const&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string_view const text(reinterpret_cast<char const*>(data), size);
    zel::SceneLimits const limits{.bytes = 1 << 20, .nodes = 10'000, .depth = 200};
    readAs(zel::scalarFromJson, text, limits);
    readAs(zel::vectorFromJson, text, limits);
    zel::Tree tree;
    try {
        tree = zel::fromJson(text, limits);
    } catch (zel::SceneError const&) {
        return 0;
    }
    std::string const written = zel::toJson(tree);
    zel::Tree const again = zel::fromJson(written);
    expect(zel::sameTree(tree, again));
    expect(zel::hashOf(tree) == zel::hashOf(again));
    expect(zel::toJson(again) == written);
    expect(zel::check(tree).empty());
    expect(!zel::describe(tree).empty() && !zel::toDot(tree).empty());
    bindAndEvaluate(tree);
    return 0;
}
