#include "errors.h"

#include <new>
#include <stdexcept>

#include "zel_scene/error.h"

namespace zel::python {

namespace {

/// The classes `zel.SceneError` and `zel.BindError`, which live as long as the process.
PyObject* sceneErrorClass = nullptr;
PyObject* bindErrorClass = nullptr;

void addClass(py::module_& module, PyObject*& cls, char const* name, char const* doc,
              PyObject* base) {
    std::string const fullName = std::string("zel.") + name;
    if (!cls) cls = PyErr_NewExceptionWithDoc(fullName.c_str(), doc, base, nullptr);
    if (!cls) throw py::error_already_set();
    module.attr(name) = py::handle(cls);
}

void setSceneError(SceneError const& error) {
    py::object const made = py::handle(sceneErrorClass)(error.what());
    made.attr("path") = error.path();
    made.attr("line") = error.line();
    made.attr("column") = error.column();
    PyErr_SetObject(sceneErrorClass, made.ptr());
}

}  // namespace

void addErrors(py::module_& module) {
    addClass(
        module, sceneErrorClass, "SceneError",
        "A scene that cannot be read or written. `path` is the place in the scene, such as\n"
        "'/root/a/radius'; `line` and `column` are the place in a text that is not JSON, else 0.",
        PyExc_ValueError);
    addClass(
        module, bindErrorClass, "BindError",
        "Leaves that bind(strict=True) did not bind. `names` are the names of what is missing.",
        PyExc_KeyError);
    // NOLINTNEXTLINE(performance-unnecessary-value-param): pybind11 has it by value
    py::register_local_exception_translator([](std::exception_ptr const exception) {
        if (exception) setError(exception);
    });
}

void raiseBindError(std::string const& text, py::tuple const& names) {
    py::object const error = py::handle(bindErrorClass)(text);
    error.attr("names") = names;
    PyErr_SetObject(bindErrorClass, error.ptr());
    throw py::error_already_set();
}

void setError(std::exception_ptr const& exception) {
    try {
        std::rethrow_exception(exception);
    } catch (py::error_already_set& error) {
        error.restore();
    } catch (py::cast_error const&) {
        PyErr_SetString(PyExc_TypeError, "zel: a part of a pickled state is of another type");
    } catch (py::builtin_exception const& error) {
        error.set_error();
    } catch (SceneError const& error) {
        try {
            setSceneError(error);
        } catch (...) {
            setError(std::current_exception());
        }
    } catch (std::bad_alloc const&) {
        PyErr_NoMemory();
    } catch (std::logic_error const& error) {
        PyErr_SetString(PyExc_ValueError, error.what());
    } catch (std::exception const& error) {
        PyErr_SetString(PyExc_RuntimeError, error.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "zel: an exception of an unknown type");
    }
}

std::string textOf(py::handle str) {
    Py_ssize_t size = 0;
    char const* const text = PyUnicode_AsUTF8AndSize(str.ptr(), &size);
    if (!text) throw py::error_already_set();
    return {text, static_cast<std::size_t>(size)};
}

py::object fromText(std::string_view text) {
    auto made = py::reinterpret_steal<py::object>(
        PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
    if (!made) throw py::error_already_set();
    return made;
}

std::string typeName(py::handle object) {
    return Py_TYPE(object.ptr())->tp_name;
}

PyObject* refuseNew(char const* error) {
    PyErr_SetString(PyExc_TypeError, error);
    return nullptr;
}

void makeImmutable(py::handle type) {
#ifdef Py_TPFLAGS_IMMUTABLETYPE
    auto* const object = reinterpret_cast<PyTypeObject*>(type.ptr());
    object->tp_flags |= Py_TPFLAGS_IMMUTABLETYPE;
    PyType_Modified(object);
#endif
}

std::string shown(py::handle object) {
    constexpr std::size_t kMost = 60;
    std::string text;
    try {
        text = textOf(py::repr(object));
    } catch (py::error_already_set&) {
        return typeName(object);
    }
    if (text.size() > kMost || text.find('\n') != std::string::npos) return typeName(object);
    return typeName(object) + ' ' + text;
}

}  // namespace zel::python
