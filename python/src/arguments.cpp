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

/// The parameters of a function, of which the first `placed` may be given by place.
struct Names {
    std::string_view function;
    std::span<std::string_view const> all;
    std::size_t placed;

    [[noreturn]] void refuse(std::string const& problem) const {
        throw py::type_error(std::string(function) + ": " + problem);
    }
    void checkPlaced(std::size_t count) const {
        if (count > placed)
            refuse("got " + std::to_string(count) + (count == 1 ? " argument" : " arguments") +
                   " by place; " + parametersText(all, placed));
    }
    /// The element of `found`, which has one for each parameter, for an argument by keyword.
    template <class Found> auto& placeOf(py::handle keyword, Found& found) const {
        Py_ssize_t size = 0;
        char const* const text = PyUnicode_AsUTF8AndSize(keyword.ptr(), &size);
        if (!text) throw py::error_already_set();
        std::string_view const name(text, static_cast<std::size_t>(size));
        auto const at = std::find(all.begin(), all.end(), name);
        if (at == all.end())
            refuse("no parameter " + std::string(name) + "; " + parametersText(all, placed));
        auto& place = found[static_cast<std::size_t>(at - all.begin())];
        if (place) refuse(std::string(name) + " is given twice");
        return place;
    }
};

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
    Names const parameters{function, names, placed};
    auto const given = py::reinterpret_borrow<py::tuple>(args);
    parameters.checkPlaced(given.size());
    Arguments found(names.size());
    for (std::size_t i = 0; i < given.size(); ++i) found[i] = given[i];
    if (!keywords) return found;
    for (auto const& [key, value] : py::reinterpret_borrow<py::dict>(keywords))
        parameters.placeOf(key, found) = py::reinterpret_borrow<py::object>(value);
    return found;
}

void findArguments(char const* function, std::span<std::string_view const> names,
                   PyObject* const* args, std::size_t placed, PyObject* keywords,
                   std::span<PyObject*> found) {
    Names const parameters{function, names, names.size()};
    parameters.checkPlaced(placed);
    std::copy_n(args, placed, found.begin());
    if (!keywords) return;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(keywords); ++i)
        parameters.placeOf(PyTuple_GET_ITEM(keywords, i), found) =
            args[placed + static_cast<std::size_t>(i)];
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
