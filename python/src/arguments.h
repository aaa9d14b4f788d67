#pragma once

#include <pybind11/pybind11.h>

#include <cstddef>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

// Functions of Python with named parameters. pybind11 alone would answer a call that does not fit
// with a list of types of C++; here the error names the argument and the parameters that there are.
namespace zel::python {

namespace py = pybind11;

/// The arguments of a call in the order of the parameters.
using Arguments = std::vector<py::object>;

/// Those of a call with `args` and `keywords`, a dict or null; null where none is given. Only the
/// first `placed` parameters may be given by place. Throws TypeError, which begins with `function`,
/// for an argument too many, an unknown name, or one given twice.
Arguments argumentsOf(std::string const& function, std::span<std::string_view const> names,
                      std::size_t placed, py::handle args, py::handle keywords);

/// The same of a vectorcall, whose parameters may all be given by place: `args` are those given by
/// place, `placed` of them, and then those of `keywords`, a tuple of names or null. Sets `found`,
/// in the order of `names`, to what is given, borrowed; others stay as they are. Needs no
/// allocation.
void findArguments(char const* function, std::span<std::string_view const> names,
                   PyObject* const* args, std::size_t placed, PyObject* keywords,
                   std::span<PyObject*> found);

/// The parameters of a function, written as for pybind11: `"a"_a`, `"b"_a = 1`, py::kw_only().
class Parameters {
public:
    template <class... Parts> explicit Parameters(Parts const&... parts) {
        (add(parts), ...);
        if (!m_hasKeywordsOnly) m_placed = m_names.size();
    }

    /// The arguments of a call, with the defaults where none is given. Throws TypeError as
    /// argumentsOf() does, and for one that is missing.
    Arguments match(std::string const& function, py::handle args, py::handle keywords) const;
    /// As Python writes it, such as "(self, a, *, b=1)".
    std::string signature(bool hasSelf) const;

private:
    void add(py::arg const& parameter);
    void add(py::arg_v const& parameter);
    void add(py::kw_only const& /*marker*/);

    std::vector<std::string_view> m_names;
    std::vector<py::object> m_defaults;
    std::size_t m_placed = 0;
    bool m_hasKeywordsOnly = false;
};

/// Makes a function of Python for a module or a class. `name` is the full one, such as
/// "zel.Volume.from_numpy". The docstring, if there is a `doc`, begins with the signature in the
/// form in which inspect.signature() finds it.
py::object makeFunction(py::handle scope, std::string const& name, Parameters const& parameters,
                        std::string const& doc,
                        std::function<py::object(Arguments const&)> const& body);
/// The same for a method.
py::object makeMethod(py::handle type, std::string const& name, Parameters const& parameters,
                      std::string const& doc,
                      std::function<py::object(py::handle self, Arguments const&)> const& body);

/// Calls a function with the elements of a list.
template <class Function, std::size_t... I>
py::object callWith(Function const& function, Arguments const& arguments,
                    std::index_sequence<I...> /*places*/) {
    auto result = function(arguments[I]...);
    if constexpr (std::is_base_of_v<py::object, decltype(result)>)
        return result;
    else
        return py::cast(std::move(result));
}

/// Whether there is a parameter for each argument.
template <std::size_t count, class... Parts>
constexpr bool kNamesAll = (0 + ... + !std::is_same_v<Parts, py::kw_only>) == count;

/// The function of Python that calls `function`, which takes a py::handle or a py::object for each
/// parameter.
template <class Result, class... Args, class... Parts>
py::object makeFunction(py::handle scope, std::string const& name, Result (*function)(Args...),
                        std::string const& doc, Parts const&... parts) {
    static_assert(kNamesAll<sizeof...(Args), Parts...>);
    return makeFunction(
        scope, name, Parameters(parts...), doc, [function](Arguments const& arguments) {
            return callWith(function, arguments, std::index_sequence_for<Args...>());
        });
}

/// Adds such a function to the module zel.
template <class Result, class... Args, class... Parts>
void addFunction(py::module_& module, char const* name, Result (*function)(Args...),
                 std::string const& doc, Parts const&... parts) {
    module.attr(name) = makeFunction(module, std::string("zel.") + name, function, doc, parts...);
}

}  // namespace zel::python
