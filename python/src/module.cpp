#include <pybind11/pybind11.h>

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
void checkInterpreter() {
    if (PyInterpreterState_Get() != PyInterpreterState_Main())
        throw py::import_error("zel: not to be imported by a subinterpreter");
}

}  // namespace

PYBIND11_MODULE(_zel, module) {
    checkInterpreter();
    module.doc() = "Procedural fields: the part of the module zel that is written in C++.";
    module.attr("__version__") = std::to_string(ZEL_VERSION_MAJOR) + '.' +
                                 std::to_string(ZEL_VERSION_MINOR) + '.' +
                                 std::to_string(ZEL_VERSION_PATCH);
    module.def("_check_interpreter", checkInterpreter);
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

}  // namespace zel::python
