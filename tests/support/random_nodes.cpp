#include "support/random_nodes.h"

#include <sstream>
#include <type_traits>

namespace support {

namespace {

template <std::size_t, class T> using SameFor = T;

/// Makes a node by its constructor of the most arguments, in their order.
template <class Node, std::size_t count = 10>
Quern::Ptr<Node> construct(RandomNodes const& arguments) {
    return [&]<std::size_t... i>(std::index_sequence<i...>) {
        if constexpr (std::is_constructible_v<Node, SameFor<i, RandomNodes const&>...>)
            return makePtr<Node>(Node{(static_cast<void>(i), arguments)...});
        else
            return construct<Node, count - 1>(arguments);
    }
    (std::make_index_sequence<count>());
}

template <class Node>
concept HidesNoCall = requires(Node const& node, Quern::Array<float3> const& positions) {
    node.eval(positions);
    node.eval(positions[0], 0);
    node.grad(positions[0], 0);
};

template <class... Nodes> std::vector<NodeMaker> makersOf(std::istringstream names) {
    auto const next = [&] {
        std::string name;
        names >> name;
        return "zel::" + name.substr(0, name.find(','));
    };
    static_assert((zel::detail::isLibraryNode<Nodes> && ...));
    static_assert((HidesNoCall<Nodes> && ...));
    return {NodeMaker{
        next(), Construct<std::conditional_t<std::is_base_of_v<ScalarField, Nodes>, ScalarField,
                                             VectorField>>([](RandomNodes const& arguments) {
            return std::conditional_t<std::is_base_of_v<ScalarField, Nodes>, ScalarPtr, VectorPtr>(
                construct<Nodes>(arguments));
        })}...};
}

#define ZEL_MAKERS_OF(...) makersOf<__VA_ARGS__>(std::istringstream(#__VA_ARGS__))
#define ZEL_EXPANDED(macro, ...) macro(__VA_ARGS__)

}  // namespace

std::vector<NodeMaker> const& nodeMakers() {
    static auto const makers = ZEL_EXPANDED(ZEL_MAKERS_OF, ZEL_LIBRARY_NODES);
    return makers;
}

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

template Orvane::Object const& boundObject<ORV::TileTree3D::BinaryTraits>();
template Orvane::Object const& boundObject<ORV::TileTree3D::QuinaryTraits>();

RandomNodes::RandomNodes(Choices const& choices, bool bindsNodes)
    : random(choices), binds(bindsNodes) {
    keep(ScalarPtr(makePtr<OwnScalar>()));
    keep(VectorPtr(makePtr<VectorFieldPosition>()));
    keep(ScalarPtr(makePtr<OwnSum>(*this, *this)));
    auto const& makers = nodeMakers();
    for (int i = 0; i < 10; ++i)
        std::visit([&](auto construct) { make(construct); },
                   makers[random() % makers.size()].construct);
}

void RandomNodes::bindSome(Field& node) {
    if (!binds || !node.is_triggerable() || random() % 4 == 0) return;
    node.apply_object(*this);
    auto const map = makePtr<Quern::Array<long long>>(80LL);
    for (auto& i : *map) i = random() % 75;
    if (random() % 2) node.use_property_indices(map);
}

RandomNodes::operator Quern::Ptr<Orvane::Math::FCurve>() const {
    using Key = Orvane::Math::FCurve::Key;
    using enum Orvane::Math::FCurve::Extrapolation;
    return makePtr<Orvane::Math::FCurve>(std::vector<Key>{{-2, -1}, {0.5, 2}, {3, 1}}, kLinear,
                                         kCycle);
}

RandomNodes::operator Orvane::Object const&() const {
    static Orvane::Object const empty;
    return !binds || random() % 4 == 0 ? empty
           : random() % 2 == 0         ? boundObject<ORV::TileTree3D::BinaryTraits>()
                                       : boundObject<ORV::TileTree3D::QuinaryTraits>();
}

template <class... Node> ScalarPtr RandomTrees::one(std::array<unsigned, 3> const& counts) const {
    using Make = ScalarPtr (*)(RandomNodes const&);
    constexpr Make kMakers[] = {
        [](RandomNodes const& trees) -> ScalarPtr { return construct<Node>(trees); }...};
    return kMakers[random() % counts[kinds]](*this);
}

RandomTrees::operator ScalarPtr() const {
    // The next of its parent's children gets what this one leaves.
    auto const share = random() % 3 ? static_cast<unsigned>(random() % (left + 1)) : left;
    unsigned const rest = left - share;
    ScalarPtr tree;
    if (share > 0) {
        left = share - 1;
        tree =
            one<ScalarFieldAbsolute, ScalarFieldNegative, ScalarFieldClamp, ScalarFieldSquareRoot,
                ScalarFieldMask, ScalarFieldLerp, ScalarFieldLerp, ScalarFieldMin, ScalarFieldMax,
                ScalarFieldMultiply, ScalarFieldDivide, ScalarFieldSubtract, ScalarFieldAdd,
                ScalarFieldSine, ScalarFieldTranslate, ScalarFieldSwitch, ScalarFieldWarp, OwnSum>(
                std::array{13U, 17U, 18U});
        left += rest;
    } else if (!shared.empty() && random() % 8 == 0) {
        return shared[random() % shared.size()];
    } else {
        tree = withExactGradients(
            one<ScalarFieldXPosition, ScalarFieldZPosition, ScalarFieldConstant, ScalarFieldSphere,
                ScalarFieldPlane, ScalarFieldImplicitBox, ScalarFieldSimplexNoise, OwnScalar>(
                std::array{5U, 7U, 8U}));
    }
    if (random() % 8 == 0) shared.push_back(tree);
    return tree;
}

RandomTrees::operator VectorPtr() const {
    return makePtr<ScalarFieldGradient>(ScalarPtr(*this));
}

}  // namespace support
