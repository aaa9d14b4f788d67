#include "tree_walk.h"

#include "zel_scene/node_class.h"

namespace zel::python {

NodeList::NodeList(Field const& root) {
    struct All final : FieldConstVisitor {
        explicit All(NodeList& list) : list(list) {}
        void operator()(Field const& node) override { list.add(&node); }
        NodeList& list;
    } all(*this);
    std::vector<Value> values;
    add(&root);
    for (std::size_t at = 0; at < m_nodes.size(); ++at) {
        Field const& node = *m_nodes[at];
        if (NodeClass const* const nodeClass = findNodeClass(node)) {
            values.clear();
            nodeClass->read(node, values);
            for (Value const& value : values) {
                if (auto const* const scalar = std::get_if<ScalarPtr>(&value)) add(scalar->get());
                if (auto const* const vector = std::get_if<VectorPtr>(&value)) add(vector->get());
            }
        }
        node.listChildren(all);
    }
}

void NodeList::add(Field const* node) {
    if (node && m_numbers.try_emplace(node, m_nodes.size()).second) m_nodes.push_back(node);
}

}  // namespace zel::python
