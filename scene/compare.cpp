#include "zel_scene/compare.h"

#include <bit>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "zel_scene/graph.h"

namespace zel {

namespace {

using detail::Graph;

/// Gives the contents of a value to a `take(std::uint64_t)` as numbers that are the same on every
/// machine. Children are not among them.
template <class Take> class Contents {
public:
    explicit Contents(Take take) : m_take(std::move(take)) {}

    void operator()(std::monostate /*none*/) {}
    void operator()(bool value) { m_take(value ? 1 : 0); }
    void operator()(std::int64_t value) { m_take(static_cast<std::uint64_t>(value)); }
    void operator()(float value) { m_take(std::bit_cast<std::uint32_t>(value)); }
    void operator()(double value) { m_take(std::bit_cast<std::uint64_t>(value)); }
    void operator()(float3 const& v) { each(v.x, v.y, v.z); }
    void operator()(float4 const& v) { each(v.x, v.y, v.z, v.w); }
    void operator()(UnitVector const& v) { (*this)(v.value); }
    void operator()(Quern::String const& text) { (*this)(Quern::StringView(text).standardView()); }
    void operator()(std::string_view text) {
        m_take(text.size());
        for (char const c : text) m_take(static_cast<unsigned char>(c));
    }
    void operator()(Orvane::Geometry::Query::SamplerType type) {
        (*this)(static_cast<std::int64_t>(type));
    }
    void operator()(Quern::Ptr<Orvane::Math::FCurve> const& curve) {
        m_take(curve ? 1 : 0);
        if (!curve) return;
        m_take(curve->keys().size());
        for (auto const& key : curve->keys()) {
            each(key.x, key.value, key.inSlope, key.outSlope);
            m_take(static_cast<std::uint64_t>(key.segment));
        }
        m_take(static_cast<std::uint64_t>(curve->before()));
        m_take(static_cast<std::uint64_t>(curve->after()));
    }
    void operator()(Quern::Ptr<Quern::Array<float3>> const& values) {
        m_take(static_cast<std::uint64_t>(values->size()));
        for (float3 const& value : *values) (*this)(value);
    }
    void operator()(ScalarPtr const& /*child*/) {}
    void operator()(VectorPtr const& /*child*/) {}

private:
    void each(auto... numbers) { ((*this)(numbers), ...); }

    Take m_take;
};

/// The graph of a tree of registered classes.
Graph graphOf(Tree const& tree, char const* caller) {
    Graph graph(detail::rootOf(tree, caller));
    for (Graph::Node const& node : graph.nodes())
        if (!node.nodeClass)
            throw std::invalid_argument(std::string(caller) + ": " + graph.path(node) +
                                        ": the class " + detail::shownName(*node.field) +
                                        " is not registered");
    return graph;
}

std::vector<std::uint64_t> contentsOf(Value const& value) {
    std::vector<std::uint64_t> numbers;
    std::visit(Contents([&](std::uint64_t number) { numbers.push_back(number); }), value);
    return numbers;
}

bool sameSlot(Graph::Slot const& a, Graph::Slot const& b) {
    return a.child == b.child && a.value.index() == b.value.index() &&
           contentsOf(a.value) == contentsOf(b.value);
}

/// FNV-1a over the bytes of numbers, from the lowest.
class Hash {
public:
    void take(std::uint64_t number) {
        for (int i = 0; i < 8; ++i) {
            m_hash = (m_hash ^ (number & 0xff)) * 0x100000001b3U;
            number >>= 8;
        }
    }
    std::uint64_t value() const { return m_hash; }

private:
    std::uint64_t m_hash = 0xcbf29ce484222325U;
};

}  // namespace

bool sameTree(Tree const& a, Tree const& b) {
    Graph const graphA = graphOf(a, "zel::sameTree");
    Graph const graphB = graphOf(b, "zel::sameTree");
    // The lists of nodes follow from the trees alone, so that equal trees have equal lists.
    if (graphA.nodes().size() != graphB.nodes().size()) return false;
    for (std::size_t i = 0; i < graphA.nodes().size(); ++i) {
        Graph::Node const& nodeA = graphA.nodes()[i];
        Graph::Node const& nodeB = graphB.nodes()[i];
        if (nodeA.nodeClass != nodeB.nodeClass) return false;
        for (std::uint32_t slot = 0; slot < nodeA.slotCount; ++slot)
            if (!sameSlot(graphA.slots(nodeA)[slot], graphB.slots(nodeB)[slot])) return false;
    }
    return true;
}

std::uint64_t hashOf(Tree const& tree) {
    Graph const graph = graphOf(tree, "zel::hashOf");
    Hash hash;
    Contents contents([&](std::uint64_t number) { hash.take(number); });
    for (Graph::Node const& node : graph.nodes()) {
        contents(std::string_view(node.nodeClass->name));
        for (std::uint32_t i = 0; i < node.slotCount; ++i) {
            Graph::Slot const& slot = graph.slots(node)[i];
            hash.take(slot.value.index());
            hash.take(slot.child);
            std::visit(contents, slot.value);
        }
    }
    return hash.value();
}

}  // namespace zel
