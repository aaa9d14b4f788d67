#include "arguments.h"

#include <algorithm>

#include "errors.h"

namespace zel::python {

namespace {

std::string listOf(std::span<std::string_view const> names) {
    std::string list;
    for (std::string_view const name : names)
        list += (list.empty() ? "" : ", ") + std::string(name);
    return list;
}

/// Such as "it has the parameters a, b, and by keyword c".
std::string parametersText(std::span<std::string_view const> names, std::size_t placed) {
    if (names.empty()) return "it has no parameters";
    std::string text = "it has the parameters " + listOf(names.first(placed));
    if (placed == names.size()) return text;
    return text + (placed == 0 ? "" : ", and ") + "by keyword " + listOf(names.subspan(placed));
}

template <class Call, class Place>
py::object function(Call&& call, std::string const& name, Place const& place,
                    std::string const& signature, std::string const& doc) {
    std::string const shortName = name.substr(name.rfind('.') + 1);
    std::string const text = doc.empty() ? doc : shortName + signature + "\n--\n\n" + doc;
    return py::cpp_function(std::forward<Call>(call), py::name(shortName.c_str()), place,
                            text.c_str());
}

}  // namespace

Arguments argumentsOf(std::string const& function, std::span<std::string_view const> names,
                      std::size_t placed, py::handle args, py::handle keywords) {
    auto const given = py::reinterpret_borrow<py::tuple>(args);
    if (given.size() > placed)
        throw py::type_error(function + ": got " + std::to_string(given.size()) +
                             (given.size() == 1 ? " argument" : " arguments") + " by place; " +
                             parametersText(names, placed));
    auto const refuse = [&](std::string const& what, std::string const& why) {
        throw py::type_error(function + ": " + what + why);
    };
    Arguments found(names.size());
    for (std::size_t i = 0; i < given.size(); ++i) found[i] = given[i];
    if (!keywords) return found;
    for (auto const& [key, value] : py::reinterpret_borrow<py::dict>(keywords)) {
        std::string const word = textOf(key);
        auto const at = std::find(names.begin(), names.end(), word);
        if (at == names.end()) refuse("no parameter " + word + "; ", parametersText(names, placed));
        py::object& place = found[static_cast<std::size_t>(at - names.begin())];
        if (place) refuse(word, " is given twice");
        place = py::reinterpret_borrow<py::object>(value);
    }
    return found;
}

void Parameters::add(py::arg const& parameter) {
    m_names.emplace_back(parameter.name);
    m_defaults.emplace_back();
}

void Parameters::add(py::arg_v const& parameter) {
    m_names.emplace_back(parameter.name);
    m_defaults.push_back(parameter.value);
}

void Parameters::add(py::kw_only const& /*marker*/) {
    m_placed = m_names.size();
    m_hasKeywordsOnly = true;
}

Arguments Parameters::match(std::string const& function, py::handle args,
                            py::handle keywords) const {
    Arguments found = argumentsOf(function, m_names, m_placed, args, keywords);
    for (std::size_t i = 0; i < found.size(); ++i) {
        if (!found[i]) found[i] = m_defaults[i];
        if (!found[i])
            throw py::type_error(function + ": " + std::string(m_names[i]) + " is missing");
    }
    return found;
}

std::string Parameters::signature(bool hasSelf) const {
    std::string text = hasSelf ? "self" : "";
    auto const append = [&](std::string const& part) { text += (text.empty() ? "" : ", ") + part; };
    for (std::size_t i = 0; i < m_names.size(); ++i) {
        if (m_hasKeywordsOnly && i == m_placed) append("*");
        append(std::string(m_names[i]) +
               (m_defaults[i] ? '=' + std::string(py::repr(m_defaults[i])) : std::string()));
    }
    return '(' + text + ')';
}

py::object makeFunction(py::handle scope, std::string const& name, Parameters const& parameters,
                        std::string const& doc,
                        std::function<py::object(Arguments const&)> const& body) {
    return function(
        [=](py::args const& args, py::kwargs const& keywords) {
            return body(parameters.match(name, args, keywords));
        },
        name, py::scope(scope), parameters.signature(false), doc);
}

py::object makeMethod(py::handle type, std::string const& name, Parameters const& parameters,
                      std::string const& doc,
                      std::function<py::object(py::handle self, Arguments const&)> const& body) {
    return function(
        [=](py::args const& args, py::kwargs const& keywords) {
            if (args.empty()) throw py::type_error(name + ": self is missing");
            auto const others =
                py::reinterpret_steal<py::tuple>(PyTuple_GetSlice(args.ptr(), 1, PY_SSIZE_T_MAX));
            if (!others) throw py::error_already_set();
            return body(args[0], parameters.match(name, others, keywords));
        },
        name, py::is_method(type), parameters.signature(true), doc);
}

}  // namespace zel::python
