#pragma once

#include <algorithm>
#include <array>
#include <random>
#include <utility>
#include <vector>

#include "support/every_node.h"
#include "support/probe.h"
#include "volume/volumes.h"

// Random nodes of every class, bound to volumes and properties or not.
namespace support {

using namespace zel;

inline Quern::Array<float3> somePositions(long long count, unsigned seed = 7) {
    std::mt19937 random(seed);
    std::uniform_real_distribution<float> coordinate(-1, 1);
    std::array<float, 8> const odd = {0, -0.0F, 1e-40F, 1e20F, 1e38F, -1, kInf, kNaN};
    auto const number = [&] { return random() % 40 ? coordinate(random) : odd[random() % 8]; };
    Quern::Array<float3> positions(count);
    for (auto& p : positions) p = {number(), number(), number()};
    return positions;
}

/// A leaf of a user: the position and the index both show.
struct OwnScalar : ScalarField {
    using ScalarField::eval;
    float eval(float3 const& p, long long i) const override {
        return p.x * p.y - p.z + static_cast<float>(i % 7);
    }
    float3 grad(float3 const& p, long long) const override { return {p.y, p.x, -1}; }
};
struct OwnSum : ScalarFieldAdd {
    using ScalarField::eval;
    using ScalarFieldAdd::ScalarFieldAdd;
    float eval(float3 const& p, long long i) const override {
        return 0.5F * ScalarFieldAdd::eval(p, i);
    }
};

/// An object with a volume of two levels and with properties, of the same names.
template <class Traits> Orvane::Object const& boundObject() {
    static auto const object = [] {
        using namespace ORV::TileTree3D;
        auto const scalars = volumes::build<Traits, float>(volumes::waves<float>);
        auto const vectors = makePtr<DataChannel<Traits, float3>>("", nullptr, 0, false, true, 0,
                                                                  scalars.container->depth());
        vectors->update(*scalars.topology);
        fillChannel<Traits, float3>(*vectors, *scalars.topology, volumes::waves<float3>);
        auto const volume = volumes::object(scalars, "scalar");
        volume->setComponent("vector", vectors);
        Orvane::Object made;
        made.setProperty("scene units in meters", 0.75F);
        using namespace Orvane::Geometry;
        setVolume(made, volume);
        auto const add = [&](char const* name, auto const& element) {
            auto const data = makePtr<Quern::Array<decltype(element(0.0F))>>(90LL);
            for (int i = 0; i < 90; ++i) (*data)[i] = element(static_cast<float>(i));
            setGeoProperty(made, name, element(-1), data, "points");
        };
        add("scalar", [](float i) { return 0.1F * i; });
        add("vector", [](float i) { return float3{i, 2, -i}; });
        add("turn", [](float i) { return float4{1, i, 3, 4}; });
        add("short", [](float i) { return static_cast<short>(i); });
        auto const range = makePtr<Quern::Array<unsigned int>>(70LL);
        for (unsigned i = 0; i < 70; ++i) (*range)[i] = 3 * i % 97;
        setRangeGeoPropIndices(made, "points", range);
        return made;
    }();
    return object;
}

/// Makes random nodes of all classes, which have many parents.
class RandomNodes {
public:
    explicit RandomNodes(unsigned seed, bool bindsNodes = true) : random(seed), binds(bindsNodes) {
        keep<ScalarField>(makePtr<OwnScalar>());
        keep<VectorField>(makePtr<VectorFieldPosition>());
        keep<ScalarField>(makePtr<OwnSum>(*this, *this));
        auto const maker = [&]<class Node>(std::string const&) {
            grow.push_back([](RandomNodes& nodes) { nodes.make<Node>(); });
        };
        forEveryNode(maker);
        for (int i = 0; i < 10; ++i) grow[random() % grow.size()](*this);
    }
    template <class Node> Quern::Ptr<Node> make() {
        auto node = construct<Node>(*this);
        if (binds && node->is_triggerable() && random() % 4) {
            node->apply_object(*this);
            auto const map = makePtr<Quern::Array<long long>>(80LL);
            for (auto& i : *map) i = random() % 75;
            if (random() % 2) node->use_property_indices(map);
        }
        keep<std::conditional_t<std::is_base_of_v<ScalarField, Node>, ScalarField, VectorField>>(
            node);
        return node;
    }

    // What constructors take.
    operator ScalarPtr() const { return pick(scalars); }
    operator VectorPtr() const { return pick(vectors); }
    operator Quern::Ptr<Orvane::Math::FCurve>() const {
        using Key = Orvane::Math::FCurve::Key;
        using enum Orvane::Math::FCurve::Extrapolation;
        return makePtr<Orvane::Math::FCurve>(std::vector<Key>{{-2, -1}, {0.5, 2}, {3, 1}}, kLinear,
                                             kCycle);
    }
    operator Orvane::Object const&() const {
        static Orvane::Object const empty;
        return !binds || random() % 4 == 0 ? empty
               : random() % 2 == 0         ? boundObject<ORV::TileTree3D::BinaryTraits>()
                                           : boundObject<ORV::TileTree3D::QuinaryTraits>();
    }
    operator Quern::String() const {
        return std::array{"scalar", "vector", "turn", "short"}[random() % 4];
    }
    operator SamplerType() const { return static_cast<SamplerType>(random() % 4); }
    operator Quern::Array<float3>() const { return {{1, 2, 3}, {-4, 5, 0.5F}, {0.25F, -2, 8}}; }
    operator float3() const { return {*this, *this, *this}; }
    operator float() const { return static_cast<float>(random() % 4000) / 1000 - 1; }
    operator int() const { return static_cast<int>(random() % 5) - 1; }
    operator bool() const { return random() % 2; }
    operator std::int64_t() const { return static_cast<std::int64_t>(random()) << 8; }

protected:
    mutable std::mt19937 random;

private:
    bool binds;
    template <class Pool> typename Pool::value_type pick(Pool const& pool) const {
        return pool[pool.size() - 1 - std::min<std::size_t>(random() % 8, pool.size() - 1)];
    }
    template <class Interface> void keep(Quern::Ptr<Interface> node) {
        if constexpr (std::is_same_v<Interface, ScalarField>)
            scalars.push_back(std::move(node));
        else
            vectors.push_back(std::move(node));
    }

    std::vector<ScalarPtr> scalars;
    std::vector<VectorPtr> vectors;
    std::vector<void (*)(RandomNodes&)> grow;
};

/// Makes scalar trees of light nodes, most of which have one parent; of three seeds one has others
/// among them, and one also a user's.
class RandomTrees : public RandomNodes {
public:
    RandomTrees(unsigned seed, unsigned nodes) : RandomNodes(seed), left(nodes), kinds(seed % 3) {}
    operator ScalarPtr() const {
        // The next of its parent's children gets what this one leaves.
        auto const share = random() % 3 ? static_cast<unsigned>(random() % (left + 1)) : left;
        unsigned const rest = left - share;
        ScalarPtr tree;
        if (share > 0) {
            left = share - 1;
            tree = one<ScalarFieldAbsolute, ScalarFieldNegative, ScalarFieldClamp,
                       ScalarFieldSquareRoot, ScalarFieldMask, ScalarFieldLerp, ScalarFieldLerp,
                       ScalarFieldMin, ScalarFieldMax, ScalarFieldMultiply, ScalarFieldDivide,
                       ScalarFieldSubtract, ScalarFieldAdd, ScalarFieldSine, ScalarFieldTranslate,
                       ScalarFieldSwitch, ScalarFieldWarp, OwnSum>(std::array{13U, 17U, 18U});
            left += rest;
        } else if (!shared.empty() && random() % 8 == 0) {
            return shared[random() % shared.size()];
        } else {
            tree = withExactGradients(
                one<ScalarFieldXPosition, ScalarFieldZPosition, ScalarFieldConstant,
                    ScalarFieldSphere, ScalarFieldPlane, ScalarFieldImplicitBox,
                    ScalarFieldSimplexNoise, OwnScalar>(std::array{5U, 7U, 8U}));
        }
        if (random() % 8 == 0) shared.push_back(tree);
        return tree;
    }
    operator VectorPtr() const { return makePtr<ScalarFieldGradient>(ScalarPtr(*this)); }

private:
    template <class... Node> ScalarPtr one(std::array<unsigned, 3> const& counts) const {
        using Make = ScalarPtr (*)(RandomTrees const&);
        constexpr Make kMakers[] = {
            [](RandomTrees const& trees) -> ScalarPtr { return construct<Node>(trees); }...};
        return kMakers[random() % counts[kinds]](*this);
    }

    mutable unsigned left;
    unsigned kinds;
    mutable std::vector<ScalarPtr> shared;
};

}  // namespace support
