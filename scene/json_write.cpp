#include <algorithm>
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
        m_open.assign({{first, 0}});
        while (!m_open.empty()) {
            Graph::Node const& node = m_graph.nodes()[m_open.back().node];
            auto const level = indent + static_cast<std::uint32_t>(m_open.size());
            if (m_open.back().nextSlot == node.slotCount) {
                m_text += '}';
                m_open.pop_back();
                continue;
            }
            std::uint32_t const at = m_open.back().nextSlot++;
            Graph::Slot const& slot = m_graph.slots(node)[at];
            ParameterInfo const& parameter = node.nodeClass->parameters[at];
            if (parameter.name == "exactGradient" && !std::get<bool>(slot.value)) continue;
            m_text += ',';
            if (Graph::isChild(slot))
                m_text.append(1, '\n').append(2 * std::size_t{level}, ' ');
            else
                m_text += ' ';
            detail::appendQuoted(m_text, parameter.name);
            m_text += ": ";
            try {
                if (!Graph::isChild(slot)) {
                    detail::appendJson(m_text, slot.value);
                } else if (slot.child == Graph::kNoNode) {
                    throw std::invalid_argument("null");
                } else if (!writeShort(slot)) {
                    begin(slot.child);
                    m_open.push_back({slot.child, 0});
                }
            } catch (std::invalid_argument const& error) {
                throw SceneError(m_graph.path(node) + '/' + parameter.name,
                                 std::string("wanted ") + detail::wantedText(parameter.kind) +
                                     ", found " + error.what());
            }
        }
    }

    void begin(std::uint32_t number) {
        Graph::Node const& node = m_graph.nodes()[number];
        if (!node.nodeClass)
            throw SceneError(m_graph.path(node),
                             "the class " + detail::shownName(*node.field) + " is not registered");
        m_text += "{\"type\": ";
        detail::appendQuoted(m_text, node.nodeClass->name);
    }

    /// Writes the name of a node in the table, or the value of a constant. Returns false for a node
    /// that must be written in full.
    bool writeShort(Graph::Slot const& slot) {
        Graph::Node const& node = m_graph.nodes()[slot.child];
        bool const isConstant = typeid(*node.field) == typeid(ScalarFieldConstant) ||
                                typeid(*node.field) == typeid(VectorFieldConstant);
        if (isConstant && node.parentCount == 1) {
            std::string value;
            detail::appendJson(value, m_graph.slots(node)[0].value);
            if (value.find('"') == std::string::npos) {  // finite
                m_text += value;
                return true;
            }
        }
        if (node.parentCount == 1 && m_open.size() < kMostLevels) return false;
        std::uint32_t& name = m_names[slot.child];
        if (name == 0) {
            m_table.push_back(slot.child);
            name = static_cast<std::uint32_t>(m_table.size());
        }
        m_text += "\"n" + std::to_string(name) + '"';
        return true;
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
