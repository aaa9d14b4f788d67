#include "binding.h"

#include <set>

#include "arguments.h"
#include "callable.h"
#include "errors.h"
#include "interrupt.h"
#include "object_types.h"
#include "tree_walk.h"
#include "values.h"
#include "zel_scene/bind.h"

namespace zel::python {

namespace {

constexpr char const* kCapsule = "zel.BoundLeaves";

bool hasBoundLeaves(FieldObject const& field) {
    if (!field.attached) return false;
    for (py::handle const one : py::reinterpret_borrow<py::tuple>(field.attached))
        if (boundLeavesIn(one)) return true;
    return false;
}

void raiseMissing(BindReport const& report, FieldObject const& original) {
    std::set<std::string> reasons;
    py::list names;
    for (Binding const& one : report.unbound())
        if (reasons.insert(one.reason()).second) names.append(py::str(one.name));
    if (reasons.empty()) return;
    std::string text = "unbound: ";
    for (std::string const& reason : reasons)
        text += (reason == *reasons.begin() ? "" : ", ") + reason;
    if (hasBoundLeaves(original))
        text += " (strict=True counts leaves of earlier calls as well: one call has to bind all)";
    raiseBindError(text, py::tuple(names));
}

/// A zel.Binding. One that was unpickled has its path as a text.
struct ReportLine {
    Binding binding;
    std::string unpickledPath;

    std::string path() const { return binding.paths ? binding.path() : unpickledPath; }
};

py::object restoreLine(py::handle className, py::handle name, py::handle state, py::handle path) {
    constexpr auto kLast = static_cast<std::int64_t>(Binding::State::kConstructed);
    ReportLine line;
    line.binding.className = className.cast<std::string>();
    line.binding.name = name.cast<std::string>();
    line.binding.state =
        static_cast<Binding::State>(toInteger(state, 0, kLast, "zel.Binding: the state"));
    line.unpickledPath = path.cast<std::string>();
    return newObject(std::move(line));
}

/// The node of a line of a report, which numbers the nodes as a list does.
Field const* nodeOf(Binding const& binding, NodeList const& list) {
    return binding.node < list.nodes().size() ? list.nodes()[binding.node] : nullptr;
}

/// The source without the parts that no leaf reads, or all of it if a leaf does not tell.
std::shared_ptr<Source const> neededOf(std::shared_ptr<Source const> const& source,
                                       BindReport const& report) {
    std::set<std::string> names;
    for (Binding const& one : report.bindings) {
        if (one.state != Binding::State::kBound) continue;
        if (one.name.empty()) return source;
        names.insert(one.name);
    }
    return source->only(names);
}

std::unordered_set<Field const*> boundNodes(NodeList const& list, BindReport const& report) {
    std::unordered_set<Field const*> found;
    for (Binding const& one : report.bindings)
        if (one.state == Binding::State::kBound && nodeOf(one, list))
            found.insert(nodeOf(one, list));
    return found;
}

}  // namespace

py::capsule capsuleOf(BoundLeaves bound) {
    auto* const kept = new BoundLeaves(std::move(bound));
    return py::capsule(kept, kCapsule, [](PyObject* capsule) {
        delete static_cast<BoundLeaves*>(PyCapsule_GetPointer(capsule, kCapsule));
    });
}

BoundLeaves const* boundLeavesIn(py::handle attached) {
    if (!PyCapsule_IsValid(attached.ptr(), kCapsule)) return nullptr;
    return static_cast<BoundLeaves const*>(PyCapsule_GetPointer(attached.ptr(), kCapsule));
}

py::object attachedOfCopy(FieldObject const& original, Tree const& copy,
                          std::shared_ptr<Source const> const& source,
                          std::unordered_set<Field const*> const& rebound) {
    py::list attached;
    NodeList const before(rootOf(original.tree)), after(rootOf(copy));
    for (py::handle const one :
         original.attached ? py::reinterpret_borrow<py::tuple>(original.attached) : py::tuple()) {
        BoundLeaves const* const known = boundLeavesIn(one);
        if (!known) {
            attached.append(one);
            continue;
        }
        // A user's class that does not name its children may have more of them in the copy.
        if (before.nodes().size() != after.nodes().size()) continue;
        BoundLeaves kept{known->source, {}, copy};
        for (Field const* const leaf : known->leaves) {
            if (!before.contains(leaf)) continue;
            Field const* const same = after.nodes()[before.numberOf(leaf)];
            if (!rebound.contains(same)) kept.leaves.insert(same);
        }
        if (!kept.leaves.empty()) attached.append(capsuleOf(std::move(kept)));
    }
    if (source && !rebound.empty()) attached.append(capsuleOf({source, rebound, copy}));
    return py::tuple(attached);
}

PyObject* bindField(PyObject* self, PyObject* args, PyObject* keywords) {
    return guardedObject([&] {
        using namespace py::literals;
        py::none const none;
        Parameters const parameters("properties"_a = none, "targets"_a = none, "volume"_a = none,
                                    py::kw_only(), "indices"_a = none, "metres_per_unit"_a = none,
                                    "strict"_a = false);
        Arguments const given = parameters.match("zel.Field.bind", args, keywords);
        bool const isStrict = toBool(given[5], "strict");
        auto const source = std::make_shared<Source const>(
            Source::Parts{given[0], given[1], given[2], given[3], given[4]});
        FieldObject& original = fieldOf(self);
        Tree tree = original.tree;
        BindReport report;
        withoutLock([&] { report = zel::bind(tree, source->object(), source->indices()); });
        NodeList const nodes(rootOf(tree));
        py::object const attached =
            attachedOfCopy(original, tree, neededOf(source, report), boundNodes(nodes, report));
        if (isStrict) raiseMissing(report, original);
        py::object made = wrap(tree, attached, original.levels);
        py::list lines;
        for (Binding const& one : report.bindings) lines.append(newObject(ReportLine{one, {}}));
        fieldOf(made).report = py::tuple(lines).release().ptr();
        return made.release().ptr();
    });
}

py::object constructBound(NodeClass const& nodeClass, std::span<Value> values, py::handle volume) {
    Source::Parts parts;
    parts.volume = py::reinterpret_borrow<py::object>(volume);
    auto const source = std::make_shared<Source const>(parts);
    Tree tree = nodeClass.make(values, source->object());
    Field const& node = rootOf(tree);
    if (node.is_triggerable())
        throw py::type_error("zel." + nodeClass.name +
                             ": no parameter volume: bind(volume=...) binds such a field");
    if (!nodeClass.isBound(node))
        throw py::key_error("zel." + nodeClass.name +
                            ": the volume has no channel of that name and type");
    return wrap(tree, py::make_tuple(capsuleOf({source, {&node}, tree})));
}

void setReport(py::handle field, py::tuple const& lines) {
    for (py::handle const line : lines)
        if (!isObjectOf<ReportLine>(line))
            throw py::type_error("zel: the state has a report of " + shown(line));
    if (lines.empty()) return;
    fieldOf(field).report = py::object(lines).release().ptr();
}

void addBinding(py::module_& module) {
    using namespace py::literals;
    ObjectType<ReportLine> type(
        module, "zel.Binding", "What bind() did for a leaf that waits for an object.",
        [](PyTypeObject*, PyObject*, PyObject*) {
            return refuseNew("zel.Binding: bind() makes the lines of its report");
        });
    type.attribute(
        "class_name", +[](ReportLine const& self) { return self.binding.className; },
        "The name of the leaf's class in C++, such as 'zel::ScalarGeoPropertyTriggered'.");
    type.attribute(
        "name", +[](ReportLine const& self) { return self.binding.name; },
        "The property or the channel that the leaf looks for.");
    type.attribute(
        "is_bound",
        +[](ReportLine const& self) { return self.binding.state == Binding::State::kBound; },
        "Whether this call has bound the leaf.");
    type.attribute(
        "reason", +[](ReportLine const& self) { return self.binding.reason(); },
        "The state in words, such as 'no property \"density\"'.");
    type.attribute(
        "path", +[](ReportLine const& self) { return self.path(); },
        "The way from the root, such as '/root/a/field'.");
    type.method(
        "__repr__", +[](ReportLine const& self) {
            return "<zel.Binding " + self.path() + ": " + self.binding.className + ": " +
                   self.binding.reason() + '>';
        });
    type.copiesAreItself();
    type.method(
        "__reduce__", +[](ReportLine const& self) {
            return py::make_tuple(py::module_::import("zel._tools").attr("_binding"),
                                  py::make_tuple(self.binding.className, self.binding.name,
                                                 static_cast<int>(self.binding.state),
                                                 self.path()));
        });
    addFunction(module, "_binding", restoreLine, "", "class_name"_a, "name"_a, "state"_a, "path"_a);
}

}  // namespace zel::python
