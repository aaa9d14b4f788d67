#include "zel/node/exact_gradients.h"

#include <set>
#include <unordered_map>
#include <unordered_set>

#include "zel/node/type_name.h"

namespace zel {

namespace {

/// Copies a graph, and sets the gradients of the copies.
class GraphCopy final : public ChildReplacer {
public:
    void operator()(ScalarPtr& child) override { child = copyOf(child); }
    void operator()(VectorPtr& child) override { child = copyOf(child); }
    void operator()(Field& child) override { child.useExactGradient(*this); }

    template <class Interface> Quern::Ptr<Interface> copyOf(Quern::Ptr<Interface> const& node) {
        if (!node) return node;
        auto& copies = std::get<Copies<Interface>>(m_copies);
        if (auto const known = copies.find(node.get()); known != copies.end())
            return known->second.copy;
        Quern::Ptr<Interface> copy = node.clone();
        operator()(static_cast<Field&>(*copy));
        copies.emplace(node.get(), Copied<Interface>{node, copy});
        return copy;
    }

private:
    /// The copy of a node. A node that its parent made for its own copy has no other owner than
    /// `original`, without which the next node might get its address.
    template <class Interface> struct Copied { Quern::Ptr<Interface> original, copy; };
    template <class Interface>
    using Copies = std::unordered_map<Interface const*, Copied<Interface>>;

    std::tuple<Copies<ScalarField>, Copies<VectorField>> m_copies;
};

/// Visits each node of a graph once, and collects the classes without exact gradients.
class DifferenceSearch final : public FieldConstVisitor {
public:
    void operator()(Field const& node) override {
        if (!m_visited.insert(&node).second) return;
        if (!node.hasExactGradient()) m_names.insert(typeNameOf(typeid(node)).c_str());
        node.listChildren(*this);
    }

    std::vector<std::string> names() const { return {m_names.begin(), m_names.end()}; }

private:
    std::unordered_set<Field const*> m_visited;
    std::set<std::string> m_names;
};

}  // namespace

ScalarPtr withExactGradients(ScalarPtr const& tree) {
    return GraphCopy().copyOf(tree);
}

VectorPtr withExactGradients(VectorPtr const& tree) {
    return GraphCopy().copyOf(tree);
}

GradientReport hasExactGradients(Field const& tree) {
    DifferenceSearch search;
    search(tree);
    return {search.names()};
}

}  // namespace zel
