#pragma once

#include <pybind11/pybind11.h>

#include <structmember.h>

#include <cstddef>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include "arguments.h"
#include "errors.h"
#include "field_types.h"

// The Python types of values of C++, such as zel.Curve. They are not classes of pybind11, since
// those have a base class that ends the process when a program makes an object of it.
namespace zel::python {

/// An object of Python that has a T, which never changes.
template <class T> struct ObjectOf {
    PyObject ob_base;
    PyObject* weakReferences;
    T value;
};

/// The type of these objects; null until ObjectType<T> makes it.
template <class T> inline PyTypeObject* objectType = nullptr;

template <class T> bool isObjectOf(py::handle object) {
    return PyObject_TypeCheck(object.ptr(), objectType<T>);
}

/// The value of an object. Throws TypeError if it has none of the type.
template <class T> T const& valueOf(py::handle object) {
    if (!isObjectOf<T>(object))
        throw py::type_error(std::string("wanted a ") + objectType<T>->tp_name + ", got " +
                             shown(object));
    return reinterpret_cast<ObjectOf<T>*>(object.ptr())->value;
}

template <class T> py::object newObject(T value) {
    static_assert(std::is_nothrow_move_constructible_v<T>);
    PyTypeObject* const type = objectType<T>;
    auto* const made = reinterpret_cast<ObjectOf<T>*>(type->tp_alloc(type, 0));
    if (!made) throw py::error_already_set();
    new (&made->value) T(std::move(value));
    return py::reinterpret_steal<py::object>(reinterpret_cast<PyObject*>(made));
}

/// Makes the type of objects with a T and adds it to a module. Functions of the type get the value
/// as their first argument, methods that take a py::handle there the object.
template <class T> class ObjectType {
public:
    /// `name` is "zel." and the name in the module, and must last. `make` is __new__. A T with
    /// references to objects of Python has `int traverse(visitproc, void*) const`.
    ObjectType(py::module_& module, char const* name, char const* doc, newfunc make) {
        PyMemberDef members[] = {{"__weaklistoffset__", T_PYSSIZET,
                                  offsetof(ObjectOf<T>, weakReferences), READONLY, nullptr},
                                 {}};
        PyType_Slot slots[] = {{Py_tp_new, slot(make)},
                               {Py_tp_dealloc, slot(deallocate)},
                               {Py_tp_doc, const_cast<char*>(doc)},
                               {Py_tp_members, members},
                               // Without references, the list ends here.
                               {kHasReferences ? Py_tp_traverse : 0, slot(traverse)},
                               {0, nullptr}};
        PyType_Spec spec{
            name, sizeof(ObjectOf<T>), 0,
            static_cast<unsigned>(Py_TPFLAGS_DEFAULT | (kHasReferences ? Py_TPFLAGS_HAVE_GC : 0)),
            slots};
        m_type = py::reinterpret_steal<py::object>(PyType_FromSpec(&spec));
        if (!m_type) throw py::error_already_set();
        objectType<T> = reinterpret_cast<PyTypeObject*>(py::object(m_type).release().ptr());
        module.attr(objectType<T>->tp_name + sizeof("zel.") - 1) = m_type;
    }
    ObjectType(ObjectType const&) = delete;
    ObjectType& operator=(ObjectType const&) = delete;
    ~ObjectType() { makeImmutable(m_type); }

    template <class Result, class First, class... Args, class... Parts>
    void method(char const* name, Result (*function)(First, Args...), char const* doc = "",
                Parts const&... parts) {
        m_type.attr(name) = methodOf(name, function, doc, parts...);
    }
    template <class Result, class... Args, class... Parts>
    void staticMethod(char const* name, Result (*function)(Args...), char const* doc,
                      Parts const&... parts) {
        m_type.attr(name) =
            py::staticmethod(makeFunction(m_type, fullName(name), function, doc, parts...));
    }
    template <class Result>
    void attribute(char const* name, Result (*function)(T const&), char const* doc) {
        m_type.attr(name) = py::handle(reinterpret_cast<PyObject*>(&PyProperty_Type))(
            methodOf(name, function, ""), py::none(), py::none(), doc);
    }
    /// Has copies of an object, deep ones too, be the object.
    void copiesAreItself() {
        using namespace py::literals;
        method(
            "__copy__", +[](py::handle self) { return py::reinterpret_borrow<py::object>(self); });
        method(
            "__deepcopy__",
            +[](py::handle self, py::handle /*memo*/) {
                return py::reinterpret_borrow<py::object>(self);
            },
            "", "memo"_a);
    }

private:
    static std::string fullName(char const* name) {
        return std::string(objectType<T>->tp_name) + '.' + name;
    }
    template <class Result, class First, class... Args, class... Parts>
    py::object methodOf(char const* name, Result (*function)(First, Args...), char const* doc,
                        Parts const&... parts) {
        static_assert(kNamesAll<sizeof...(Args), Parts...>);
        return makeMethod(m_type, fullName(name), Parameters(parts...), doc,
                          [function](py::handle self, Arguments const& arguments) {
                              T const& value = valueOf<T>(self);
                              auto const call = [&](auto const&... args) {
                                  if constexpr (std::is_same_v<First, py::handle>)
                                      return function(self, args...);
                                  else
                                      return function(value, args...);
                              };
                              return callWith(call, arguments, std::index_sequence_for<Args...>());
                          });
    }

    static constexpr bool kHasReferences = requires(T const& value, visitproc visit, void* arg) {
        value.traverse(visit, arg);
    };

    static int traverse(PyObject* self, visitproc visit, void* arg) {
        Py_VISIT(Py_TYPE(self));
        if constexpr (kHasReferences)
            return reinterpret_cast<ObjectOf<T>*>(self)->value.traverse(visit, arg);
        else
            return 0;
    }
    static void deallocate(PyObject* self) {
        if constexpr (kHasReferences) PyObject_GC_UnTrack(self);
        auto* const object = reinterpret_cast<ObjectOf<T>*>(self);
        if (object->weakReferences) PyObject_ClearWeakRefs(self);
        object->value.~T();
        PyTypeObject* const type = Py_TYPE(self);
        type->tp_free(self);
        Py_DECREF(type);
    }

    py::object m_type;
};

}  // namespace zel::python
