#include "zel_scene/graph.h"

#include <algorithm>
#include <stdexcept>
#include <unordered_map>

#include "zel/node/type_name.h"
#include "zel_scene/shown_text.h"

namespace zel::detail {

namespace {

struct ChildList final : FieldConstVisitor {
    void operator()(Field const& node) override { children.push_back(&node); }

    std::vector<Field const*> children;
};

Field const* childOf(Value const& value) {
    if (auto const* const scalar = std::get_if<ScalarPtr>(&value)) return scalar->get();
    if (auto const* const vector = std::get_if<VectorPtr>(&value)) return vector->get();
    return nullptr;
}

}  // namespace

Graph::Graph(Field const& root, Children children) {
    std::unordered_map<Field const*, std::uint32_t> numbers;
    std::unordered_map<std::type_info const*, NodeClass const*> classes;
    auto const classOf = [&](Field const& node) {
        auto const [at, isNew] = classes.try_emplace(&typeid(node), nullptr);
        if (isNew) at->second = findNodeClass(node);
        return at->second;
    };
    numbers.emplace(&root, 0);
    m_nodes.push_back({&root, classOf(root), 0, 0, 0, kNoNode, 0});
    for (std::uint32_t at = 0; at < m_nodes.size(); ++at) {
        auto const first = static_cast<std::uint32_t>(m_slots.size());
        Field const& field = *m_nodes[at].field;
        ChildList list;
        if (m_nodes[at].nodeClass) {
            m_values.clear();
            m_nodes[at].nodeClass->read(field, m_values);
            for (Value& value : m_values) {
                list.children.push_back(childOf(value));
                m_slots.push_back({std::move(value), kNoNode});
            }
            if (children == Children::kAll) {
                ChildList all;
                field.listChildren(all);
                std::size_t const named = list.children.size();
                for (Field const* const child : all.children) {
                    auto const end = list.children.begin() + static_cast<std::ptrdiff_t>(named);
                    if (std::find(list.children.begin(), end, child) != end) continue;
                    list.children.push_back(child);
                    m_slots.emplace_back();
                }
            }
        } else {
            field.listChildren(list);
            m_slots.resize(first + list.children.size());
        }
        auto const count = static_cast<std::uint32_t>(list.children.size());
        m_nodes[at].firstSlot = first;
        m_nodes[at].slotCount = count;
        for (std::uint32_t slot = 0; slot < count; ++slot) {
            Field const* const child = list.children[slot];
            if (!child) continue;
            auto const [known, isNew] =
                numbers.try_emplace(child, static_cast<std::uint32_t>(m_nodes.size()));
            if (isNew) m_nodes.push_back({child, classOf(*child), 0, 0, 0, at, slot});
            m_slots[first + slot].child = known->second;
            ++m_nodes[known->second].parentCount;
        }
    }
}

std::string Graph::slotName(Node const& node, std::uint32_t slot) {
    bool const isNamed = node.nodeClass && slot < node.nodeClass->parameters.size();
    return isNamed ? node.nodeClass->parameters[slot].name : std::to_string(slot);
}

std::string Graph::path(std::vector<Node> const& nodes, Node const& node) {
    std::vector<std::string> names;
    for (Node const* at = &node; at->parent != kNoNode; at = &nodes[at->parent])
        names.push_back(slotName(nodes[at->parent], at->slotInParent));
    std::string text = "/root";
    for (auto name = names.rbegin(); name != names.rend(); ++name) appendPointer(text, *name);
    return text;
}

std::string Graph::path(Node const& node, std::uint32_t slot) const {
    std::string text = path(node);
    appendPointer(text, slotName(node, slot));
    return text;
}

std::string shownName(Field const& node) {
    return typeNameOf(typeid(node));
}

Field const& rootOf(Tree const& tree, char const* caller) {
    return std::visit(
        [&](auto const& root) -> Field const& {
            if (!root) throw std::invalid_argument(std::string(caller) + ": no tree");
            return *root;
        },
        tree);
}

}  // namespace zel::detail
