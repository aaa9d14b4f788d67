#include "pickle.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <limits>
#include <unordered_map>

#include "arguments.h"
#include "binding.h"
#include "callable.h"
#include "errors.h"
#include "tree_walk.h"
#include "zel_scene/json.h"

namespace zel::python {

namespace {

/// Puts other nodes in the place of some.
class Replacer final : public ChildReplacer {
public:
    std::unordered_map<Field const*, Tree> replaced;

    void operator()(ScalarPtr& child) override { replace(child); }
    void operator()(VectorPtr& child) override { replace(child); }
    void operator()(Field& /*child*/) override {}

    template <class Interface> void replace(Quern::Ptr<Interface>& child) const {
        auto const found = replaced.find(child.get());
        if (found != replaced.end()) child = std::get<Quern::Ptr<Interface>>(found->second);
    }
};

/// Binds a leaf of a tree that nobody else has yet. A class that is bound by its constructor is
/// constructed anew.
void bindLeaf(Field const& node, Source const& source, Replacer& replacer) {
    auto& leaf = const_cast<Field&>(node);
    if (leaf.is_triggerable()) {
        leaf.apply_object(source.object());
        if (source.indices()) leaf.use_property_indices(source.indices());
        return;
    }
    NodeClass const* const nodeClass = findNodeClass(node);
    if (!nodeClass) throw py::value_error("zel: the state binds a node of an unknown class");
    std::vector<Value> values;
    nodeClass->read(node, values);
    replacer.replaced.emplace(&node, nodeClass->make(values, source.object()));
}

py::object restore(py::object const& text, py::object const& givenFunctions,
                   py::object const& givenBindings, py::object const& report) {
    // Tuples: the arrays of a state may run code that changes a list.
    py::tuple const functions(givenFunctions), bindings(givenBindings);
    SceneLimits limits;
    limits.bytes = limits.nodes = limits.depth = std::numeric_limits<std::size_t>::max();
    Tree tree = fromJson(text.cast<std::string>(), limits);
    NodeList const list(rootOf(tree));
    auto const& nodes = list.nodes();

    Replacer replacer;
    std::vector<std::pair<std::shared_ptr<Source const>, std::vector<Field const*>>> bound;
    for (py::handle const one : bindings) {
        auto const pair = one.cast<std::pair<py::dict, std::vector<std::size_t>>>();
        auto const& [source, leaves] =
            bound.emplace_back(Source::fromState(pair.first), std::vector<Field const*>());
        for (std::size_t const number : pair.second) {
            if (number >= nodes.size()) throw py::value_error("zel: the state binds no node");
            bindLeaf(*nodes[number], *source, replacer);
            bound.back().second.push_back(nodes[number]);
        }
    }

    py::list attached;
    auto function = functions.begin();
    for (Field const* const node : nodes) {
        if (!isFunctionNode(*node)) continue;
        if (function == functions.end()) throw py::value_error("zel: the state lacks a function");
        attached.append(setFunction(*node, *function));
        ++function;
    }

    if (!replacer.replaced.empty()) {
        // One that is replaced is gone once its last parent is done, but not the children that the
        // new one has of it.
        for (Field const* const node : nodes)
            if (!replacer.replaced.contains(node))
                const_cast<Field*>(node)->replaceChildren(replacer);
        for (auto const& [node, made] : replacer.replaced)
            const_cast<Field&>(rootOf(made)).replaceChildren(replacer);
        std::visit([&](auto& root) { replacer.replace(root); }, tree);
    }
    for (auto const& [source, leaves] : bound) {
        BoundLeaves kept{source, {}, tree};
        for (Field const* const leaf : leaves) {
            auto const found = replacer.replaced.find(leaf);
            kept.leaves.insert(found == replacer.replaced.end() ? leaf : &rootOf(found->second));
        }
        attached.append(capsuleOf(std::move(kept)));
    }
    py::object made = wrap(tree, py::tuple(attached));
    setReport(made, py::tuple(report));
    return made;
}

/// The report that a pickle carries. Of a tree too deep to evaluate it would take the square of the
/// levels, since each line has its path.
py::object reportOf(FieldObject& field) {
    bool const hasReport = field.report && levelsOf(field) <= SceneLimits().depth;
    return hasReport ? py::reinterpret_borrow<py::object>(field.report) : py::tuple();
}

}  // namespace

py::object reduce(py::handle self) {
    FieldObject& field = fieldOf(self);
    std::string const text = toJson(field.tree);
    NodeList const list(rootOf(field.tree));
    py::list functions, bindings;
    for (Field const* const node : list.nodes())
        if (isFunctionNode(*node)) functions.append(functionOf(*node));
    if (field.attached) {
        for (py::handle const one : py::reinterpret_borrow<py::tuple>(field.attached)) {
            BoundLeaves const* const bound = boundLeavesIn(one);
            if (!bound) continue;
            std::vector<std::size_t> numbers;
            for (Field const* const leaf : bound->leaves)
                if (list.contains(leaf)) numbers.push_back(list.numberOf(leaf));
            if (numbers.empty()) continue;
            std::sort(numbers.begin(), numbers.end());
            bindings.append(py::make_tuple(bound->source->state(), numbers));
        }
    }
    return py::make_tuple(py::module_::import("zel._tools").attr("_restore"),
                          py::make_tuple(text, functions, bindings, reportOf(field)));
}

void addRestore(py::module_& module) {
    using namespace py::literals;
    addFunction(module, "_restore", restore, "", "text"_a, "functions"_a, "bindings"_a,
                "report"_a = py::tuple());
}

}  // namespace zel::python
