#include "class_docs.h"

#include <algorithm>
#include <charconv>
#include <string_view>
#include <vector>

#include "arguments.h"
#include "callable.h"
#include "values.h"
#include "zel_platform/orvane_geometry/object.h"

namespace zel::python {

namespace py = pybind11;

namespace {

struct ClassDoc {
    std::string_view name, text;
};

/// The comments above the classes of the library, sorted by the names of the classes.
constexpr ClassDoc kDocs[] = {
#include "class_docs.inc"
};

std::string_view commentOn(std::string_view name) {
    auto const* const found =
        std::lower_bound(std::begin(kDocs), std::end(kDocs), name,
                         [](ClassDoc const& doc, std::string_view n) { return doc.name < n; });
    return found != std::end(kDocs) && found->name == name ? found->text : std::string_view();
}

char const* kindName(ValueKind kind) {
    constexpr char const* kNames[] = {
        "none",       "bool",   "integer", "float", "double",  "vector",      "quaternion",
        "unitVector", "string", "sampler", "curve", "vectors", "scalarField", "vectorField"};
    static_assert(std::size(kNames) == std::variant_size_v<Value>);
    return kNames[static_cast<std::size_t>(kind)];
}

/// The shortest text that is read back to the same number.
template <class Real> std::string numberText(Real number) {
    char digits[40];
    std::string text(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
    bool const isInteger = text.find_first_not_of("-0123456789") == std::string::npos;
    return isInteger ? text + ".0" : text;
}

/// A default value as Python writes it; "..." for one that is no literal.
std::string defaultText(Value const& value) {
    if (auto const* const number = std::get_if<float>(&value)) return numberText(*number);
    if (auto const* const v = std::get_if<float3>(&value))
        return '(' + numberText(v->x) + ", " + numberText(v->y) + ", " + numberText(v->z) + ')';
    switch (kindOf(value)) {
    case ValueKind::kBool:
    case ValueKind::kInteger:
    case ValueKind::kDouble:
    case ValueKind::kString:
    case ValueKind::kSampler:
        return py::repr(fromValue(value, {}));
    default:
        return "...";
    }
}

/// Whether the constructor alone binds a class, to a volume; other bound classes wait for bind().
bool takesVolume(NodeClass const& nodeClass) {
    if (!nodeClass.isBound) return false;
    std::vector<Value> values;
    for (ParameterInfo const& parameter : nodeClass.parameters) {
        if (parameter.defaultValue.index() == 0 && parameter.kind != ValueKind::kString)
            return false;
        values.push_back(parameter.defaultValue.index() == 0 ? Value(Quern::String())
                                                             : defaultValue(parameter));
    }
    return !rootOf(nodeClass.make(values, Orvane::Object())).is_triggerable();
}

}  // namespace

char const* kindText(ValueKind kind) {
    switch (kind) {
    case ValueKind::kBool:
        return "bool";
    case ValueKind::kInteger:
        return "int";
    case ValueKind::kFloat:
    case ValueKind::kDouble:
        return "float";
    case ValueKind::kVector:
        return "vector (x, y, z)";
    case ValueKind::kQuaternion:
        return "rotation vector (x, y, z) in radians or quaternion (x, y, z, w)";
    case ValueKind::kUnitVector:
        return "direction (x, y, z)";
    case ValueKind::kString:
        return "str";
    case ValueKind::kSampler:
        return "'linear', 'cubicC0' or 'cubicC1'";
    case ValueKind::kCurve:
        return "zel.Curve or keys";
    case ValueKind::kVectors:
        return "array of shape (n, 3)";
    case ValueKind::kScalarField:
        return "scalar field or number";
    case ValueKind::kVectorField:
        return "vector field or vector (x, y, z)";
    case ValueKind::kNone:
        break;
    }
    return "";
}

void addNodeClasses(py::module_& module) {
    addFunction(
        module, "_node_classes",
        +[] {
            py::list classes;
            for (NodeClass const* const one : nodeClasses()) {
                if (isFunctionClass(*one)) continue;
                py::list parameters;
                for (ParameterInfo const& parameter : one->parameters) {
                    bool const hasDefault = parameter.defaultValue.index() != 0;
                    parameters.append(py::make_tuple(
                        parameter.name, kindName(parameter.kind),
                        hasDefault ? py::object(py::str(defaultText(parameter.defaultValue)))
                                   : py::none()));
                }
                classes.append(py::make_tuple(one->name, one->isScalar,
                                              std::string(commentOn(one->name)), parameters,
                                              one->chain != Chain::kNone, takesVolume(*one)));
            }
            return classes;
        },
        "The node classes: (name, whether it is a scalar field, comment, parameters, whether its\n"
        "function takes more operands than two, whether it takes a volume). A parameter is\n"
        "(name, kind, text of the default or None).");
}

std::string signatureOf(NodeClass const& nodeClass) {
    std::string signature;
    bool hasDefaults = false, isKeyword = false;
    for (ParameterInfo const& parameter : nodeClass.parameters) {
        // A signature of Python has no parameter without a default after one with a default, but
        // among those that are given by keyword.
        bool const hasDefault = parameter.defaultValue.index() != 0;
        if (hasDefaults && !hasDefault && !isKeyword) {
            signature += ", *";
            isKeyword = true;
        }
        hasDefaults = hasDefaults || hasDefault;
        signature += (signature.empty() ? "" : ", ") + parameter.name;
        if (hasDefault) signature += '=' + defaultText(parameter.defaultValue);
    }
    if (takesVolume(nodeClass)) signature += std::string(isKeyword ? "" : ", *") + ", volume=None";
    return '(' + signature + ')';
}

std::string functionSignatureOf(NodeClass const& nodeClass) {
    std::string signature = signatureOf(nodeClass);
    if (nodeClass.chain != Chain::kNone) {
        std::string const& second = nodeClass.parameters[1].name;  // the last operand
        signature.insert(signature.find(", " + second) + 2 + second.size(), ", *more");
    }
    return signature;
}

std::string commentOf(NodeClass const& nodeClass) {
    std::string doc(commentOn(nodeClass.name));
    if (!doc.empty()) doc += "\n\n";
    doc += nodeClass.isScalar ? "A scalar field." : "A vector field.";
    if (!nodeClass.parameters.empty()) doc += "\n\nParameters:";
    for (ParameterInfo const& parameter : nodeClass.parameters) {
        doc += "\n    " + parameter.name + ": " + kindText(parameter.kind);
        if (parameter.defaultValue.index() != 0)
            doc += ", " + defaultText(parameter.defaultValue) + " by default";
    }
    if (takesVolume(nodeClass))
        doc +=
            "\n    volume: zel.Volume to bind to, by keyword. Raises KeyError if it has no channel "
            "of that name and type";
    if (signatureOf(nodeClass).find("*, ") != std::string::npos && !takesVolume(nodeClass))
        doc += "\n\nAll of them can be given by place, too.";
    return doc;
}

}  // namespace zel::python
