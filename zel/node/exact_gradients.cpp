#include "zel/node/exact_gradients.h"

#include <set>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "zel/node/type_name.h"

namespace zel {

namespace {

/// Copies a graph, and sets the gradients of the copies. By a list of the copies whose children are
/// still those of the originals, not by recursion, since a graph may be deeper than the stack
/// allows.
class GraphCopy final : ChildReplacer {
public:
    template <class Interface> Quern::Ptr<Interface> copyOf(Quern::Ptr<Interface> const& root) {
        Quern::Ptr<Interface> copy = copied(root);
        while (!m_open.empty()) {
            Field* const node = m_open.back();
            m_open.pop_back();
            node->useExactGradient(*this);
        }
        return copy;
    }

private:
    void operator()(ScalarPtr& child) override { child = copied(child); }
    void operator()(VectorPtr& child) override { child = copied(child); }
    void operator()(Field& child) override { m_open.push_back(&child); }

    template <class Interface> Quern::Ptr<Interface> copied(Quern::Ptr<Interface> const& node) {
        if (!node) return node;
        auto& copies = std::get<Copies<Interface>>(m_copies);
        if (auto const known = copies.find(node.get()); known != copies.end())
            return known->second.copy;
        Quern::Ptr<Interface> copy = node.clone();
        copies.emplace(node.get(), Copied<Interface>{node, copy});
        m_open.push_back(copy.get());
        return copy;
    }

    /// The copy of a node. A node that its parent made for its own copy has no other owner than
    /// `original`, without which the next node might get its address.
    template <class Interface> struct Copied { Quern::Ptr<Interface> original, copy; };
    template <class Interface>
    using Copies = std::unordered_map<Interface const*, Copied<Interface>>;

    std::tuple<Copies<ScalarField>, Copies<VectorField>> m_copies;
    std::vector<Field*> m_open;
};

/// Visits each node of a graph once, and collects the classes without exact gradients.
class DifferenceSearch final : public FieldConstVisitor {
public:
    void operator()(Field const& node) override {
        if (m_visited.insert(&node).second) m_open.push_back(&node);
    }

    void walk(Field const& root) {
        operator()(root);
        while (!m_open.empty()) {
            Field const& node = *m_open.back();
            m_open.pop_back();
            if (!node.hasExactGradient()) m_names.insert(typeNameOf(typeid(node)).c_str());
            node.listChildren(*this);
        }
    }

    std::vector<std::string> names() const { return {m_names.begin(), m_names.end()}; }

private:
    std::unordered_set<Field const*> m_visited;
    std::vector<Field const*> m_open;
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
    search.walk(tree);
    return {search.names()};
}

}  // namespace zel
