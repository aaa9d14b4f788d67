#include "zel_scene/describe.h"

#include <algorithm>

#include "zel_scene/graph.h"
#include "zel_scene/shown_text.h"
#include "zel_scene/value_text.h"

namespace zel {

namespace {

using detail::Graph;

/// Calls `use(name, slot)` for each parameter that is not a child.
template <class Use>
void forParameters(Graph const& graph, Graph::Node const& node, Use const& use) {
    for (std::uint32_t i = 0; i < node.slotCount; ++i) {
        Graph::Slot const& slot = graph.slots(node)[i];
        if (Graph::isChild(slot)) continue;
        // Most trees have the gradients that their nodes come with.
        if (Graph::slotName(node, i) == "exactGradient" && !std::get<bool>(slot.value)) continue;
        use(Graph::slotName(node, i), slot.value);
    }
}

class Description {
public:
    explicit Description(Field const& root) : m_graph(root), m_numbers(m_graph.nodes().size()) {}

    std::string text() {
        // By an explicit stack, since a tree may be deeper than the call stack allows.
        struct Line {
            std::uint32_t node, parent, slot, depth;
        };
        std::vector<Line> lines{{0, Graph::kNoNode, 0, 0}};
        while (!lines.empty()) {
            Line const line = lines.back();
            lines.pop_back();
            m_text.append(2 * std::size_t{std::min(line.depth, kDeepest)}, ' ');
            if (line.parent != Graph::kNoNode)
                m_text += Graph::slotName(m_graph.nodes()[line.parent], line.slot) + ": ";
            bool const listsChildren = appendNode(line.node);
            m_text += '\n';
            if (!listsChildren) continue;
            Graph::Node const& node = m_graph.nodes()[line.node];
            for (std::uint32_t i = node.slotCount; i-- > 0;)
                if (Graph::isChild(m_graph.slots(node)[i]))
                    lines.push_back({m_graph.slots(node)[i].child, line.node, i, line.depth + 1});
        }
        return std::move(m_text);
    }

private:
    static constexpr std::uint32_t kDeepest = 50;

    /// Returns whether the children are to follow.
    bool appendNode(std::uint32_t number) {
        if (number == Graph::kNoNode) {
            m_text += "null";
            return false;
        }
        Graph::Node const& node = m_graph.nodes()[number];
        m_text += detail::shownName(*node.field);
        if (node.parentCount > 1) {
            bool const isKnown = m_numbers[number] != 0;
            if (!isKnown) m_numbers[number] = ++m_shared;
            m_text += " #" + std::to_string(m_numbers[number]);
            if (isKnown) return false;
        }
        forParameters(m_graph, node, [&](std::string const& name, Value const& value) {
            m_text += ' ' + name + '=';
            detail::appendShort(m_text, value);
        });
        return true;
    }

    Graph m_graph;
    std::vector<std::uint32_t> m_numbers;  // of shared nodes that were listed; 0 for the others
    std::uint32_t m_shared = 0;
    std::string m_text;
};

/// The text in the quotation marks of graphviz.
std::string quotedForDot(std::string const& text) {
    std::string quoted = "\"";
    for (char const c : text) {
        if (c == '\n') {
            quoted += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += static_cast<unsigned char>(c) < 0x20 ? '?' : c;
        if (c == '&') quoted += "amp;";  // in labels, entities of HTML stand for characters
    }
    return quoted + '"';
}

}  // namespace

std::string describe(Tree const& tree) {
    return Description(detail::rootOf(tree, "zel::describe")).text();
}

std::string toDot(Tree const& tree) {
    Graph const graph(detail::rootOf(tree, "zel::toDot"));
    std::string text = "digraph tree {\n  rankdir=LR;\n  node [shape=box];\n";
    for (std::size_t at = 0; at < graph.nodes().size(); ++at) {
        Graph::Node const& node = graph.nodes()[at];
        // graphviz refuses texts of more than 16384 bytes.
        constexpr std::size_t kMostOfName = 500, kMostOfValue = 200;
        std::string label = detail::shortened(detail::shownName(*node.field), kMostOfName);
        forParameters(graph, node, [&](std::string const& name, Value const& value) {
            std::string line = name + ' ';
            detail::appendShort(line, value);
            label += '\n' + detail::shortened(line, kMostOfValue);
        });
        std::string const name = "  n" + std::to_string(at);
        text += name + " [label=" + quotedForDot(label) + "];\n";
        for (std::uint32_t i = 0; i < node.slotCount; ++i) {
            std::uint32_t const child = graph.slots(node)[i].child;
            if (child == Graph::kNoNode) continue;
            text += name + " -> n" + std::to_string(child) +
                    " [label=" + quotedForDot(detail::shortened(Graph::slotName(node, i))) + "];\n";
        }
    }
    return text + "}\n";
}

}  // namespace zel
