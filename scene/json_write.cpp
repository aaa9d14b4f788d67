#include <cmath>
#include <stdexcept>

#include "zel/scalar/arithmetic.h"
#include "zel/vector/arithmetic.h"
#include "zel_scene/graph.h"
#include "zel_scene/json.h"
#include "zel_scene/value_text.h"

namespace zel {

namespace {

using detail::Graph;

/// Writes a graph. A node with several parents, and a node at each kMostLevels levels, so that
/// other programs can read deep trees by recursion, is written into the table "nodes" and referred
/// to by its name there.
class Writer {
public:
    explicit Writer(Field const& root) : m_graph(root), m_names(m_graph.nodes().size()) {}

    std::string text() {
        m_text = "{\n  \"version\": " + std::to_string(kSceneVersion) + ",\n  \"root\": ";
        write(0, 1);
        // Entries refer to others, which are appended meanwhile.
        for (std::size_t i = 0; i < m_table.size(); ++i) {
            m_text += i == 0 ? ",\n  \"nodes\": {\n    " : ",\n    ";
            m_text += "\"n" + std::to_string(i + 1) + "\": ";
            write(m_table[i], 2);
        }
        m_text += m_table.empty() ? "\n}\n" : "\n  }\n}\n";
        return std::move(m_text);
    }

private:
    static constexpr std::uint32_t kMostLevels = 24;

    struct Open {
        std::uint32_t node, nextSlot;
    };

    /// Writes a node with its descendants, as far as they are not in the table.
    void write(std::uint32_t first, std::uint32_t indent) {
        begin(first);
        while (!m_open.empty()) {
            auto const [number, at] = m_open.back();
            Graph::Node const& node = m_graph.nodes()[number];
            if (at == node.slotCount) {
                m_text += '}';
                m_open.pop_back();
                continue;
            }
            ++m_open.back().nextSlot;
            Graph::Slot const& slot = m_graph.slots(node)[at];
            if (!Graph::isChild(slot)) continue;
            if (slot.child == Graph::kNoNode) refuse(node, at, "null");
            bool const isShort = isWrittenShort(slot);
            m_text += ',';
            if (isShort)
                m_text += ' ';
            else
                m_text.append(1, '\n').append(2 * (indent + m_open.size()), ' ');
            detail::appendQuoted(m_text, node.nodeClass->parameters[at].name);
            m_text += ": ";
            if (isShort)
                writeShort(slot);
            else
                begin(slot.child);
        }
    }

    /// Writes the class and the parameters that are not children, and opens the node for these.
    void begin(std::uint32_t number) {
        Graph::Node const& node = m_graph.nodes()[number];
        if (!node.nodeClass)
            throw SceneError(m_graph.path(node),
                             "the class " + detail::shownName(*node.field) + " is not registered");
        m_text += "{\"type\": ";
        detail::appendQuoted(m_text, node.nodeClass->name);
        for (std::uint32_t at = 0; at < node.slotCount; ++at) {
            Graph::Slot const& slot = m_graph.slots(node)[at];
            std::string const& name = node.nodeClass->parameters[at].name;
            if (Graph::isChild(slot)) continue;
            if (name == "exactGradient" && !std::get<bool>(slot.value)) continue;
            m_text += ", ";
            detail::appendQuoted(m_text, name);
            m_text += ": ";
            try {
                detail::appendJson(m_text, slot.value);
            } catch (std::invalid_argument const& error) {
                refuse(node, at, error.what());
            }
        }
        m_open.push_back({number, 0});
    }

    [[noreturn]] void refuse(Graph::Node const& node, std::uint32_t at, char const* found) const {
        ParameterInfo const& parameter = node.nodeClass->parameters[at];
        throw SceneError(m_graph.path(node, at), std::string("wanted ") +
                                                     detail::wantedText(parameter.kind) +
                                                     ", found " + found);
    }

    /// A constant that is finite, and belongs to one parent, is its value.
    bool isWrittenAsValue(Graph::Node const& node) const {
        if (node.parentCount > 1) return false;
        if (typeid(*node.field) == typeid(ScalarFieldConstant))
            return std::isfinite(std::get<float>(m_graph.slots(node)[0].value));
        if (typeid(*node.field) != typeid(VectorFieldConstant)) return false;
        auto const& v = std::get<float3>(m_graph.slots(node)[0].value);
        return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
    }

    bool isWrittenShort(Graph::Slot const& slot) const {
        Graph::Node const& node = m_graph.nodes()[slot.child];
        return isWrittenAsValue(node) || node.parentCount > 1 || m_open.size() >= kMostLevels;
    }

    /// Writes the value of a constant, or the name of a node in the table.
    void writeShort(Graph::Slot const& slot) {
        Graph::Node const& node = m_graph.nodes()[slot.child];
        if (isWrittenAsValue(node)) return detail::appendJson(m_text, m_graph.slots(node)[0].value);
        std::uint32_t& name = m_names[slot.child];
        if (name == 0) {
            m_table.push_back(slot.child);
            name = static_cast<std::uint32_t>(m_table.size());
        }
        m_text += "\"n" + std::to_string(name) + '"';
    }

    Graph m_graph;
    std::vector<std::uint32_t> m_names;  // of each node, the place in the table from 1; or 0
    std::vector<std::uint32_t> m_table;
    std::vector<Open> m_open;
    std::string m_text;
};

}  // namespace

std::string toJson(Tree const& tree) {
    return Writer(detail::rootOf(tree, "zel::toJson")).text();
}

}  // namespace zel
