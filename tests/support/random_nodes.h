#pragma once

#include <algorithm>
#include <random>
#include <variant>

#include "support/choices.h"
#include "support/probe.h"
#include "volume/volumes.h"
#include "zel/library_nodes.h"

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

class RandomNodes;

/// Makes a node by the constructor of a class that has the most parameters.
template <class Interface> using Construct = Quern::Ptr<Interface> (*)(RandomNodes const&);
struct NodeMaker {
    std::string name;  // of the class
    std::variant<Construct<ScalarField>, Construct<VectorField>> construct;
};
/// One for every class of node in the library.
std::vector<NodeMaker> const& nodeMakers();

/// Calls `f(name, construct)` for every class of node. `f` is compiled for scalars and vectors, and
/// not for each class.
template <class F> void forEveryNode(F const& f) {
    for (NodeMaker const& one : nodeMakers())
        std::visit([&](auto construct) { f(one.name, construct); }, one.construct);
}

/// An object with a volume of two levels and with properties, of the same names. Of BinaryTraits
/// and QuinaryTraits.
template <class Traits> Orvane::Object const& boundObject();

/// Makes random nodes of all classes, which have many parents. Turns into whatever a constructor
/// takes.
class RandomNodes {
public:
    explicit RandomNodes(unsigned seed, bool bindsNodes = true)
        : RandomNodes(Choices(seed), bindsNodes) {}
    RandomNodes(Choices const& choices, bool bindsNodes);
    virtual ~RandomNodes() = default;

    /// A node of a class, bound to objects in part, which later nodes may have as a child.
    template <class Interface> Quern::Ptr<Interface> make(Construct<Interface> construct) {
        auto node = construct(*this);
        bindSome(*node);
        keep(node);
        return node;
    }

    virtual operator ScalarPtr() const { return pick(scalars); }
    virtual operator VectorPtr() const { return pick(vectors); }
    operator Quern::Ptr<Orvane::Math::FCurve>() const;
    operator Orvane::Object const&() const;
    operator Quern::String() const {
        return std::array{"scalar", "vector", "turn", "short"}[random() % 4];
    }
    operator SamplerType() const { return static_cast<SamplerType>(random() % 4); }
    operator Quern::Array<float3>() const { return {{1, 2, 3}, {-4, 5, 0.5F}, {0.25F, -2, 8}}; }
    operator float3() const { return {*this, *this, *this}; }
    operator float() const { return number(); }
    operator int() const { return static_cast<int>(random() % 5) - 1; }
    operator bool() const { return random() % 2; }
    operator std::int64_t() const { return static_cast<std::int64_t>(random()) << 8; }

protected:
    virtual float number() const { return static_cast<float>(random() % 4000) / 1000 - 1; }

    mutable Choices random;

private:
    void bindSome(Field& node);
    template <class Pool> typename Pool::value_type pick(Pool const& pool) const {
        return pool[pool.size() - 1 - std::min<std::size_t>(random() % 8, pool.size() - 1)];
    }
    void keep(ScalarPtr node) { scalars.push_back(std::move(node)); }
    void keep(VectorPtr node) { vectors.push_back(std::move(node)); }

    bool binds;
    std::vector<ScalarPtr> scalars;
    std::vector<VectorPtr> vectors;
};

/// Makes scalar trees of light nodes, most of which have one parent; of three seeds one has others
/// among them, and one also a user's.
class RandomTrees : public RandomNodes {
public:
    RandomTrees(unsigned seed, unsigned nodes) : RandomNodes(seed), left(nodes), kinds(seed % 3) {}
    operator ScalarPtr() const override;
    operator VectorPtr() const override;

private:
    template <class... Node> ScalarPtr one(std::array<unsigned, 3> const& counts) const;

    mutable unsigned left;
    unsigned kinds;
    mutable std::vector<ScalarPtr> shared;
};

}  // namespace support
