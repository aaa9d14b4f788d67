// Field trees over the properties of a small mesh. The trees are made before a mesh exists; once
// they are bound to a mesh, each corner of its triangles reads its own values. Prints tables.

#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

#include "binder.h"
#include "output.h"

namespace {

using Orvane::Math::float3;
using Orvane::Math::float4;
using Quern::Array;
using Quern::makePtr;
using zel::ScalarPtr;
using zel::VectorPtr;

constexpr long long kCorners = 6;

template <class T> Quern::Ptr<Array<T>> values(std::initializer_list<T> list) {
    return makePtr<Array<T>>(list);
}

/// A rotation around the z axis.
float4 turn(float degrees) {
    float const half = degrees * 3.14159265F / 360;
    return {0, 0, std::sin(half), std::cos(half)};
}

/// Two triangles on four points. An element is a corner of a triangle: the range indices map it to
/// its point, which has a position, a density and an orientation, or to its triangle, which has a
/// material.
Orvane::Object makeQuad(float size, float density, short material) {
    using namespace Orvane::Geometry;
    Orvane::Object mesh;
    setGeoProperty(mesh, "position", float3{},
                   values<float3>({{0, 0, 0}, {size, 0, 0}, {size, size, 0}, {0, size, 0}}),
                   "points");
    setGeoProperty(mesh, "density", 1.0F,
                   values<float>({density, 2 * density, 3 * density, 4 * density}), "points");
    setGeoProperty(mesh, "orientation", float4{0, 0, 0, 1},
                   values<float4>({turn(0), turn(30), turn(60), turn(90)}), "points");
    setGeoProperty(mesh, "material", short{0},
                   values<short>({material, static_cast<short>(material + 1)}), "triangles");
    setRangeGeoPropIndices(mesh, "points", values<unsigned int>({0, 1, 2, 0, 2, 3}));
    setRangeGeoPropIndices(mesh, "triangles", values<unsigned int>({0, 0, 0, 1, 1, 1}));
    return mesh;
}

std::string text(float value) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%10.4g", static_cast<double>(value));
    return buffer;
}
std::string text(float3 const& v) {
    return text(v.x) + text(v.y) + text(v.z);
}

/// Prints a line for each element: its index and its value in each of the fields.
template <class... Fields> void printTable(char const* head, Fields const&... fields) {
    std::printf("%s\n", head);
    // These fields depend on the element index alone: any position will do.
    Array<float3> const anywhere(kCorners);
    auto const print = [](auto const&... columns) {
        for (long long i = 0; i < kCorners; ++i)
            std::printf("%7lld%s\n", i, (text((*columns)[i]) + ...).c_str());
    };
    print(fields->eval(anywhere)...);
}

}  // namespace

int main() try {
    // The two trees share the subtree `mass`.
    VectorPtr const position = makePtr<zel::VectorGeoPropertyTriggered>("position");
    ScalarPtr const density = makePtr<zel::ScalarGeoPropertyTriggered>("density");
    ScalarPtr const material = makePtr<zel::ScalarGeoPropertyTriggered>("material");
    VectorPtr const rotation = makePtr<zel::VectorGeoPropertyTriggered>("orientation");
    ScalarPtr const found = makePtr<zel::ScalarGeoPropertyFound>("density");
    ScalarPtr const mass = makePtr<zel::ScalarFieldMultiply>(density, material);
    ScalarPtr const tree = makePtr<zel::ScalarFieldAdd>(mass, density);
    ScalarPtr const negative = makePtr<zel::ScalarFieldNegative>(mass);

    Orvane::Object const quad = makeQuad(1, 0.5F, 1);
    Orvane::Object const dense = makeQuad(2, 10, 7);

    printTable(
        " corner            position                      rotation           density  material",
        bindTree(position, quad), bindTree(rotation, quad), bindTree(density, quad),
        bindTree(material, quad));

    // A shared subtree is bound to a different mesh in each tree.
    auto const first = bindTree(tree, quad);
    auto const second = bindTree(negative, dense);
    printTable("\n corner     first    second  never bound", first, second, mass);

    // Property indices select the corners that are sampled. Corner 9 and a fourth index do not
    // exist, so that the other elements read the default density.
    auto const selection = values<long long>({5, 2, 9});
    printTable("\nsampled   density     found", bindTree(density, dense, selection),
               bindTree(found, dense, selection));
    return examples::finish("bind_properties");
} catch (std::exception const& error) {
    std::fprintf(stderr, "bind_properties: %s\n", error.what());
    return 1;
}
