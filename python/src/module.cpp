#include <pybind11/pybind11.h>

#include "arguments.h"
#include "binding.h"
#include "callable.h"
#include "class_docs.h"
#include "errors.h"
#include "field_types.h"
#include "functions.h"
#include "pickle.h"
#include "properties.h"
#include "tree_methods.h"
#include "values.h"
#include "volume.h"
#include "zel/version.h"

namespace zel::python {

namespace {

/// Objects and types are shared by all that import the module, which two interpreters must not do.
bool isMainInterpreter() {
    return PyInterpreterState_Get() == PyInterpreterState_Main();
}
constexpr char const* kOther = "zel: not to be imported by a subinterpreter";

py::object checkInterpreter() {
    if (!isMainInterpreter()) throw py::import_error(kOther);
    return py::none();
}

void addAll(py::module_& module) {
    // Those in docstrings are for inspect.signature(), which cannot read the ones of pybind11.
    py::options options;
    options.disable_function_signatures();
    module.doc() = "Procedural fields: the part of the module zel that is written in C++.";
    module.attr("__module__") = "zel";  // where classes and functions are public
    module.attr("__version__") = std::to_string(ZEL_VERSION_MAJOR) + '.' +
                                 std::to_string(ZEL_VERSION_MINOR) + '.' +
                                 std::to_string(ZEL_VERSION_PATCH);
    addFunction(module, "_check_interpreter", checkInterpreter, "");
    registerFunctionNodes();
    addErrors(module);
    addFieldTypes(module);
    addNodeClasses(module);
    addCurve(module);
    addVolume(module);
    addProperty(module);
    addBinding(module);
    addRestore(module);
    addLoads(module);
    addFunctions(module);
    addFunctionFields(module);  // last: `field` is a name of its own
}

}  // namespace

}  // namespace zel::python

/// Makes the module. PYBIND11_MODULE would not do: before its body, it binds pybind11 to the
/// interpreter that imports the module.
// NOLINTNEXTLINE(clang-diagnostic-reserved-identifier): the interpreter asks for this name
extern "C" PYBIND11_EXPORT PyObject* PyInit__zel() {
    using namespace zel::python;
    if (!isMainInterpreter()) {
        PyErr_SetString(PyExc_ImportError, kOther);
        return nullptr;
    }
    static bool isMade = false;
    if (isMade) {
        PyErr_SetString(PyExc_ImportError, "zel: imported before, as another package");
        return nullptr;
    }
    PYBIND11_ENSURE_INTERNALS_READY
    static PyModuleDef definition;
    auto module = py::module_::create_extension_module("_zel", nullptr, &definition);
    try {
        addAll(module);
        isMade = true;
        return module.ptr();
    }
    PYBIND11_CATCH_INIT_EXCEPTIONS
}
