#pragma once

#include <pybind11/pybind11.h>

#include <cxxabi.h>

#include <exception>
#include <string>
#include <string_view>

namespace zel::python {

namespace py = pybind11;

/// Makes the exception classes `zel.SceneError` and `zel.BindError` and adds them to the module.
void addErrors(py::module_& module);

[[noreturn]] void raiseBindError(std::string const& text, py::tuple const& names);

/// Sets the Python error that stands for a C++ exception: ValueError for an argument that is
/// refused, MemoryError, zel.SceneError, RuntimeError for others, and the error itself for one that
/// came from Python.
void setError(std::exception_ptr const& exception);

/// Calls `work` in a function that Python calls, and returns its result, or `onError` with a Python
/// error set. An interpreter that shuts down ends a thread by unwinding its stack, which passes.
template <class Result, class Work> Result guarded(Result onError, Work const& work) {
    try {
        return work();
    } catch (abi::__forced_unwind&) {
        throw;
    } catch (...) {
        setError(std::current_exception());
        return onError;
    }
}
template <class Work> PyObject* guardedObject(Work const& work) {
    return guarded<PyObject*>(nullptr, work);
}

/// The text of a str, in UTF-8. Throws UnicodeEncodeError, a ValueError, if it is none.
std::string textOf(py::handle str);
/// A str of a text of C++, which need not be UTF-8.
py::object fromText(std::string_view text);
/// The name of an object's type, such as "str", for an error.
std::string typeName(py::handle object);
/// The same with a short form of the object: `str 'one'`.
std::string shown(py::handle object);

/// For types whose objects come from functions alone; `error` names them.
PyObject* refuseNew(char const* error);
/// Keeps a type as it is, and the type of its objects, which Python would let a program assign.
void makeImmutable(py::handle type);

}  // namespace zel::python
