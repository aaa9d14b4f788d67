#include "functions.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <string_view>
#include <utility>
#include <vector>

#include "arguments.h"
#include "binding.h"
#include "callable.h"
#include "class_docs.h"
#include "errors.h"
#include "field_types.h"
#include "values.h"

namespace zel::python {

namespace {

struct NodeArguments {
    Arguments values;   // in the order of the class's parameters; null where none is given
    py::object volume;  // for a class that is bound by its constructor
};

[[noreturn]] void refuse(NodeClass const& nodeClass, std::string const& problem) {
    throw py::type_error("zel." + nodeClass.name + ": " + problem);
}

NodeArguments nodeArguments(NodeClass const& nodeClass, py::handle args, py::handle keywords) {
    NodeArguments given;
    auto words = py::reinterpret_borrow<py::object>(keywords);
    if (nodeClass.isBound && words && words.contains("volume")) {
        words = words.attr("copy")();
        given.volume = words.attr("pop")("volume");
    }
    std::vector<std::string_view> names;
    for (ParameterInfo const& one : nodeClass.parameters) names.emplace_back(one.name);
    given.values = argumentsOf("zel." + nodeClass.name, names, names.size(), args, words);
    return given;
}

/// Makes op(op(a, b), c) or a balanced tree of more than two operands, as the class has it.
py::object chain(NodeClass const& nodeClass, py::args const& args, py::handle keywords) {
    auto const join = [&](py::object const& a, py::object const& b) {
        return construct(nodeClass, py::args(py::make_tuple(a, b)), keywords);
    };
    std::vector<py::object> operands;
    for (py::handle const arg : args) {
        operands.push_back(py::reinterpret_borrow<py::object>(arg));
        // Else an error would name it as an operand of two.
        ChildSummary unused;
        toValue(arg, nodeClass.parameters[0],
                "zel." + nodeClass.name + ": operand " + std::to_string(operands.size()), unused);
    }
    if (nodeClass.chain == Chain::kLeft) {
        py::object all = join(operands[0], operands[1]);
        for (std::size_t i = 2; i < operands.size(); ++i) all = join(all, operands[i]);
        return all;
    }
    while (operands.size() > 1) {
        std::vector<py::object> half;
        for (std::size_t i = 0; i + 1 < operands.size(); i += 2)
            half.push_back(join(operands[i], operands[i + 1]));
        if (operands.size() % 2 != 0) half.push_back(operands.back());
        operands = std::move(half);
    }
    return operands[0];
}

bool takesMany(NodeClass const& nodeClass, py::args const& args) {
    return nodeClass.chain != Chain::kNone && args.size() > 2;
}

/// Whether the kinds of the arguments are those of the parameters.
bool accepts(NodeClass const& nodeClass, py::args const& args, py::handle keywords) {
    if (takesMany(nodeClass, args))
        return std::all_of(args.begin(), args.end(),
                           [&](py::handle arg) { return fits(arg, nodeClass.parameters[0]); });
    try {
        NodeArguments const found = nodeArguments(nodeClass, args, keywords);
        for (std::size_t i = 0; i < found.values.size(); ++i)
            if (found.values[i] && !fits(found.values[i], nodeClass.parameters[i])) return false;
        return true;
    } catch (py::type_error const&) {
        return false;
    }
}

bool hasVector(py::args const& args, py::handle keywords) {
    auto const isVector = [](py::handle arg) { return isVectorField(arg); };
    if (std::any_of(args.begin(), args.end(), isVector)) return true;
    if (!keywords) return false;
    for (auto const& [key, value] : py::reinterpret_borrow<py::dict>(keywords))
        if (isVector(value)) return true;
    return false;
}

/// The classes of a function: one, or that of scalar fields and that of vector fields.
using Candidates = std::vector<NodeClass const*>;

py::object call(Candidates const& candidates, py::args const& args, py::handle keywords) {
    NodeClass const* chosen = candidates[0];
    if (candidates.size() > 1) {
        auto const found =
            std::find_if(candidates.begin(), candidates.end(),
                         [&](NodeClass const* one) { return accepts(*one, args, keywords); });
        // The error of the class that is most likely meant.
        bool const isVector = hasVector(args, keywords);
        chosen = found != candidates.end() ? *found : candidates[isVector ? 1 : 0];
    }
    if (takesMany(*chosen, args)) return chain(*chosen, args, keywords);
    return construct(*chosen, args, keywords);
}

/// "SimplexNoise" as "simplex_noise".
std::string inSmallLetters(std::string_view name) {
    auto const at = [&](std::size_t i) {
        return i < name.size() ? static_cast<unsigned char>(name[i]) : 0;
    };
    std::string text;
    for (std::size_t i = 0; i < name.size(); ++i) {
        bool const begins =
            i > 0 && std::isupper(at(i)) &&
            (std::islower(at(i - 1)) || (std::isupper(at(i - 1)) && std::islower(at(i + 1))));
        if (begins) text += '_';
        text += static_cast<char>(std::tolower(at(i)));
    }
    return text;
}

std::string shortName(std::string_view name) {
    for (std::string_view const prefix : {"ScalarField", "VectorField"})
        if (name.starts_with(prefix) && name.size() > prefix.size())
            return inSmallLetters(name.substr(prefix.size()));
    return inSmallLetters(name);
}

}  // namespace

py::object construct(NodeClass const& nodeClass, py::args const& args, py::handle keywords) {
    if (isFunctionClass(nodeClass)) refuse(nodeClass, "zel.field(function) makes such a field");
    NodeArguments const given = nodeArguments(nodeClass, args, keywords);
    ChildSummary children;
    std::vector<Value> values;
    for (std::size_t i = 0; i < given.values.size(); ++i) {
        ParameterInfo const& parameter = nodeClass.parameters[i];
        std::string const where = "zel." + nodeClass.name + ": " + parameter.name;
        if (given.values[i]) {
            values.push_back(toValue(given.values[i], parameter, where, children));
        } else {
            if (parameter.defaultValue.index() == 0) throw py::type_error(where + " is missing");
            values.push_back(defaultValue(parameter));
            if (zel::isField(parameter.kind)) children.addConstant();
        }
    }
    if (given.volume) return constructBound(nodeClass, values, given.volume);
    Tree tree = nodeClass.make(values, Orvane::Object());
    return wrap(std::move(tree), children.attached(), children.levels());
}

py::object makeNode(char const* className, py::args const& args) {
    return construct(*findNodeClass(className), args, {});
}

void addFunctions(py::module_& module) {
    std::map<std::string, Candidates> functions;
    for (NodeClass const* const one : nodeClasses())
        if (!isFunctionClass(*one)) functions[shortName(one->name)].push_back(one);
    py::dict listed;
    for (auto& [name, candidates] : functions) {
        // In the order of their names, that of scalar fields comes first.
        std::string signature = functionSignatureOf(*candidates[0]), doc;
        py::list names;
        bool const isChain = candidates[0]->chain != Chain::kNone;
        if (isChain) doc += "\n\nTakes two operands or more by place, all else by keyword alone.";
        for (NodeClass const* const one : candidates) {
            std::string const other = functionSignatureOf(*one);
            if (isChain && other.size() > signature.size())
                signature = other;  // that of vector fields has the other's parameters, too
            else if (!isChain && other != signature)
                signature = "(*args, **kwargs)";
            doc += "\n\nzel." + one->name + signatureOf(*one) + "\n\n" + commentOf(*one);
            names.append(one->name);
        }
        // In this form inspect.signature() finds the signature.
        doc.insert(0, name + signature + "\n--");
        listed[py::str(name)] = names;
        module.attr(name.c_str()) = py::cpp_function(
            [all = candidates](py::args const& args, py::kwargs const& keywords) {
                return call(all, args, keywords);
            },
            py::name(name.c_str()), py::scope(module), doc.c_str());
    }
    module.attr("_functions") = listed;
}

}  // namespace zel::python
