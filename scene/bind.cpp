#include "zel_scene/bind.h"

#include <algorithm>
#include <optional>
#include <stdexcept>
#include <unordered_map>
#include <unordered_set>

#include "zel_platform/orvane_geometry/geo_property.h"
#include "zel_platform/orvane_geometry_volume/object.h"
#include "zel_scene/graph.h"
#include "zel_scene/value_text.h"

namespace zel {

/// The nodes of a tree when it was bound, which may be gone.
struct detail::BindingPaths {
    std::vector<Graph::Node> nodes;
};

namespace {

using detail::Graph;
using State = Binding::State;
using Indices = Quern::Ptr<Quern::Array<long long>>;

/// The triggerable nodes of a tree and all their ancestors.
class NodesToCopy final : FieldConstVisitor {
public:
    explicit NodesToCopy(Field const& root) {
        m_parents.try_emplace(&root);
        m_order.push_back(&root);
        for (std::size_t at = 0; at < m_order.size(); ++at) {
            m_parent = m_order[at];
            m_parent->listChildren(*this);
        }
        std::vector<Field const*> open;
        for (Field const* const node : m_order)
            if (node->is_triggerable()) open.push_back(node);
        while (!open.empty()) {
            Field const* const node = open.back();
            open.pop_back();
            if (!m_found.insert(node).second) continue;
            auto const& parents = m_parents.find(node)->second;
            open.insert(open.end(), parents.begin(), parents.end());
        }
    }

    bool contains(Field const& node) const { return m_found.contains(&node); }

private:
    void operator()(Field const& child) override {
        auto const [known, isNew] = m_parents.try_emplace(&child);
        known->second.push_back(m_parent);
        if (isNew) m_order.push_back(&child);
    }

    std::unordered_map<Field const*, std::vector<Field const*>> m_parents;
    std::vector<Field const*> m_order;
    Field const* m_parent = nullptr;
    std::unordered_set<Field const*> m_found;
};

/// Copies the nodes of a tree that are to be bound, with their ancestors, and binds the copies. By
/// a list of the copies whose children are still those of the originals, not by recursion.
class BoundCopy final : ChildReplacer {
public:
    BoundCopy(Field const& root, Orvane::Object const& object, Indices const& indices)
        : m_toCopy(root), m_object(object), m_indices(indices) {}

    template <class Interface> Quern::Ptr<Interface> copyOf(Quern::Ptr<Interface> root) {
        replace(root);
        while (!m_open.empty()) {
            Field* const node = m_open.back();
            m_open.pop_back();
            node->replaceChildren(*this);
        }
        return root;
    }

    /// Whether a node of the copy is bound to an earlier object, since this one has nothing for it.
    bool keepsEarlier(Field const& copy) const { return m_earlier.contains(&copy); }

private:
    void operator()(ScalarPtr& child) override { replace(child); }
    void operator()(VectorPtr& child) override { replace(child); }
    void operator()(Field& child) override {
        apply(child);
        m_open.push_back(&child);
    }

    void apply(Field& node) const {
        if (!node.is_triggerable()) return;
        node.apply_object(m_object);
        if (m_indices) node.use_property_indices(m_indices);
    }

    /// A bound copy. A node of the library may keep what it has of an earlier object when another
    /// is applied: a new node has nothing to keep.
    template <class Interface> Quern::Ptr<Interface> bound(Quern::Ptr<Interface> const& original) {
        NodeClass const* const known =
            original->is_triggerable() ? findNodeClass(*original) : nullptr;
        if (!known || !known->isBound) {
            Quern::Ptr<Interface> copy = original.clone();
            apply(*copy);
            return copy;
        }
        std::vector<Value> values;
        known->read(*original, values);
        auto made = std::get<Quern::Ptr<Interface>>(known->make(values, m_object));
        apply(*made);
        if (known->isBound(*made) || !known->isBound(*original)) return made;
        Quern::Ptr<Interface> copy = original.clone();
        m_earlier.insert(copy.get());
        return copy;
    }

    template <class Interface> void replace(Quern::Ptr<Interface>& child) {
        if (!child || !m_toCopy.contains(*child)) return;
        auto& copies = std::get<Copies<Interface>>(m_copies);
        auto const [known, isNew] = copies.try_emplace(child.get());
        if (isNew) {
            known->second = {child, bound(child)};
            m_open.push_back(known->second.copy.get());
        }
        child = known->second.copy;
    }

    /// The original is kept, so that no other node gets its address.
    template <class Interface> struct Copy { Quern::Ptr<Interface> original, copy; };
    template <class Interface> using Copies = std::unordered_map<Interface const*, Copy<Interface>>;

    NodesToCopy m_toCopy;
    Orvane::Object const& m_object;
    Indices const& m_indices;
    std::tuple<Copies<ScalarField>, Copies<VectorField>> m_copies;
    std::vector<Field*> m_open;
    std::unordered_set<Field const*> m_earlier;
};

/// What an object has to be bound to.
class Offer {
public:
    explicit Offer(Orvane::Object const& object) : m_object(object) {}

    State stateFor(std::string const& parameter, std::string const& name, bool isBound) {
        if (parameter == "property") {
            if (!m_object.hasProperty(name)) return State::kNoProperty;
            return isBound ? State::kBound : State::kWrongType;
        }
        if (parameter == "channel") {
            if (!volume()) return State::kNoVolume;
            auto const names = volume()->componentNames();
            if (std::find(names.begin(), names.end(), name) == names.end())
                return State::kNoChannel;
            return isBound ? State::kBound : State::kWrongChannel;
        }
        return isBound ? State::kBound : State::kUnbound;
    }

    std::string text() {
        std::vector<std::string> properties;
        for (std::string const& name : m_object.propertyNames())
            if (Orvane::pointerProperty<Orvane::Object>(m_object, name)) properties.push_back(name);
        std::string all = "properties: " + listOf(properties);
        if (!volume()) return all + "; there is no volume";
        std::vector<std::string> channels;
        for (std::string const& name : volume()->componentNames())
            if (name != std::string(Orvane::Geometry::sVoxelTileTree) &&
                name != std::string(Orvane::Geometry::sVoxelComp))
                channels.push_back(name);
        return all + "; channels: " + listOf(channels);
    }

private:
    static std::string listOf(std::vector<std::string> const& names) {
        std::string list;
        for (std::string const& name : names) list += (list.empty() ? "" : ", ") + name;
        return names.empty() ? "none" : list;
    }

    /// Null if there is none. Read at the first use: most trees wait for properties alone.
    Quern::Ptr<ORV::Object> const& volume() {
        if (!m_volume) m_volume = Orvane::Geometry::shallow_copy_object_to_orv_volume(m_object);
        return *m_volume;
    }

    Orvane::Object const& m_object;
    std::optional<Quern::Ptr<ORV::Object>> m_volume;
};

BindReport reportOn(Field const& root, Offer& offer, BoundCopy const& copy) {
    Graph graph(root, Graph::Children::kAll);
    auto const paths = std::make_shared<detail::BindingPaths>();
    BindReport report;
    for (std::uint32_t number = 0; number < graph.nodes().size(); ++number) {
        Graph::Node const& node = graph.nodes()[number];
        bool const isBound =
            !copy.keepsEarlier(*node.field) &&
            (!node.nodeClass || !node.nodeClass->isBound || node.nodeClass->isBound(*node.field));
        bool const waits = node.field->is_triggerable();
        if (!waits && isBound) continue;
        Binding binding;
        binding.paths = paths;
        binding.node = number;
        binding.className = detail::shownName(*node.field);
        std::string parameter;
        for (std::uint32_t i = 0; node.nodeClass && i < node.slotCount; ++i) {
            std::string const name = Graph::slotName(node, i);
            auto const* const text = std::get_if<Quern::String>(&graph.slots(node)[i].value);
            if (!text || (name != "property" && name != "channel")) continue;
            parameter = name;
            binding.name = *text;
        }
        binding.state =
            waits ? offer.stateFor(parameter, binding.name, isBound) : State::kConstructed;
        report.bindings.push_back(std::move(binding));
    }
    paths->nodes = std::move(graph).takeNodes();
    return report;
}

template <class Interface>
BindReport bindTree(Quern::Ptr<Interface>& tree, Orvane::Object const& object,
                    Indices const& indices, char const* caller, bool isStrict) {
    if (!tree) throw std::invalid_argument(std::string(caller) + ": no tree");
    Offer offer(object);
    BoundCopy copy(*tree, object, indices);
    Quern::Ptr<Interface> bound = copy.copyOf(tree);
    BindReport report = reportOn(*bound, offer, copy);
    if (isStrict && !report.isComplete())
        throw std::invalid_argument(std::string(caller) + ": unbound:\n" + report.text() +
                                    "there are " + offer.text());
    tree = std::move(bound);
    return report;
}

}  // namespace

std::string Binding::reason() const {
    std::string quoted;
    detail::appendEscaped(quoted, name);
    switch (state) {
    case State::kBound:
        return "bound";
    case State::kNoProperty:
        return "no property " + quoted;
    case State::kWrongType:
        return "the property " + quoted + " is of another type";
    case State::kNoVolume:
        return "no volume for the channel " + quoted;
    case State::kNoChannel:
        return "no channel " + quoted;
    case State::kWrongChannel:
        return "the channel " + quoted + " is of another type";
    case State::kConstructed:
        return "the channel " + quoted + " was not bound by its constructor, which alone binds it";
    case State::kUnbound:
        break;
    }
    return "not bound";
}

std::string Binding::path() const {
    return paths ? Graph::path(paths->nodes, paths->nodes[node]) : std::string();
}

bool BindReport::isComplete() const {
    return boundCount() == bindings.size();
}

std::size_t BindReport::boundCount() const {
    return static_cast<std::size_t>(
        std::count_if(bindings.begin(), bindings.end(),
                      [](Binding const& binding) { return binding.state == State::kBound; }));
}

std::vector<Binding> BindReport::unbound() const {
    std::vector<Binding> found;
    for (Binding const& binding : bindings)
        if (binding.state != State::kBound) found.push_back(binding);
    return found;
}

std::string BindReport::text() const {
    std::string lines;
    for (Binding const& binding : unbound())
        lines += binding.path() + ": " + binding.className + ": " + binding.reason() + '\n';
    return lines;
}

BindReport bind(ScalarPtr& tree, Orvane::Object const& object, Indices const& indices) {
    return bindTree(tree, object, indices, "zel::bind", false);
}
BindReport bind(VectorPtr& tree, Orvane::Object const& object, Indices const& indices) {
    return bindTree(tree, object, indices, "zel::bind", false);
}
BindReport bind(Tree& tree, Orvane::Object const& object, Indices const& indices) {
    return std::visit([&](auto& root) { return bind(root, object, indices); }, tree);
}

void bindStrictly(ScalarPtr& tree, Orvane::Object const& object, Indices const& indices) {
    bindTree(tree, object, indices, "zel::bindStrictly", true);
}
void bindStrictly(VectorPtr& tree, Orvane::Object const& object, Indices const& indices) {
    bindTree(tree, object, indices, "zel::bindStrictly", true);
}
void bindStrictly(Tree& tree, Orvane::Object const& object, Indices const& indices) {
    std::visit([&](auto& root) { bindStrictly(root, object, indices); }, tree);
}

std::vector<std::string> check(Tree const& tree) {
    if (std::visit([](auto const& root) { return !root; }, tree)) return {"/root"};
    Graph const graph(detail::rootOf(tree, "zel::check"));
    std::vector<std::string> paths;
    for (Graph::Node const& node : graph.nodes())
        for (std::uint32_t i = 0; i < node.slotCount; ++i)
            if (Graph::isChild(graph.slots(node)[i]) &&
                graph.slots(node)[i].child == Graph::kNoNode)
                paths.push_back(graph.path(node, i));
    return paths;
}

}  // namespace zel
