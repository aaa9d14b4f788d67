#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "zel_scene/node_class.h"

namespace zel::detail {

/// A tree as a flat list of its distinct nodes. The root is node 0; the others follow in the order
/// in which a walk by levels first meets them, so that equal trees have equal lists. Nothing
/// recurses.
class Graph {
public:
    static constexpr std::uint32_t kNoNode = ~std::uint32_t{0};

    struct Slot {
        Value value;  ///< empty for a child of a class that is not registered
        std::uint32_t child = kNoNode;
    };

    struct Node {
        Field const* field;
        NodeClass const* nodeClass;  ///< null if it is not registered
        std::uint32_t firstSlot, slotCount;
        std::uint32_t parentCount;
        /// Where the walk first met the node.
        std::uint32_t parent, slotInParent;
    };

    enum class Children {
        kParameters,  ///< of a registered class, the children that are its parameters
        kAll,         ///< also those that `listChildren` alone shows, after the parameters
    };

    /// `root` must outlive the graph, and must not change meanwhile.
    explicit Graph(Field const& root, Children children = Children::kParameters);

    std::vector<Node> const& nodes() const { return m_nodes; }
    Slot const* slots(Node const& node) const { return m_slots.data() + node.firstSlot; }

    /// Whether a slot is for a child, null or not.
    static bool isChild(Slot const& slot) {
        return slot.child != kNoNode || isField(kindOf(slot.value));
    }

    /// The name of a slot: of the parameter, or its number if it is none.
    static std::string slotName(Node const& node, std::uint32_t slot);

    /// The names from the root to a node, or to one of its slots, such as "/root/a/field": see
    /// SceneError::path().
    std::string path(Node const& node) const { return path(m_nodes, node); }
    std::string path(Node const& node, std::uint32_t slot) const;
    static std::string path(std::vector<Node> const& nodes, Node const& node);

    /// Gives up the nodes, for paths without the tree: their fields are not to be used then.
    std::vector<Node> takeNodes() && { return std::move(m_nodes); }

private:
    std::vector<Node> m_nodes;
    std::vector<Slot> m_slots;
    std::vector<Value> m_values;
};

/// The class name to show to a reader: that of the type, such as "zel::ScalarFieldAdd".
std::string shownName(Field const& node);

/// The root of a tree. Throws std::invalid_argument, with the name of the caller, if it is null.
Field const& rootOf(Tree const& tree, char const* caller);

}  // namespace zel::detail
