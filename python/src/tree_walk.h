#pragma once

#include <unordered_map>
#include <vector>

#include "zel/field/field.h"

namespace zel::python {

/// The distinct nodes of a tree, each with a number, in the order in which a walk by levels first
/// meets them. So equal trees, and copies of a tree, have equal lists. The children of a node are
/// those among its parameters, in their order, and then all others: a BindReport numbers nodes in
/// the same way.
class NodeList {
public:
    explicit NodeList(Field const& root);

    std::vector<Field const*> const& nodes() const { return m_nodes; }
    bool contains(Field const* node) const { return m_numbers.contains(node); }
    std::size_t numberOf(Field const* node) const { return m_numbers.at(node); }

private:
    void add(Field const* node);

    std::vector<Field const*> m_nodes;
    std::unordered_map<Field const*, std::size_t> m_numbers;
};

}  // namespace zel::python
