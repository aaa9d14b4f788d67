#pragma once

#include <pybind11/numpy.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "zel/field/evaluate.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

// NumPy arrays as positions and results.
namespace zel::python {

namespace py = pybind11;

/// The lengths of an array's dimensions. Needs no allocation.
class Shape {
public:
    Shape() = default;
    Shape(std::initializer_list<py::ssize_t> list) {
        for (py::ssize_t const length : list) push_back(length);
    }
    explicit Shape(py::array const& array) : Shape(array, array.ndim()) {}
    /// The first dimensions of an array.
    Shape(py::array const& array, py::ssize_t dimensions) {
        for (py::ssize_t i = 0; i < dimensions; ++i) push_back(array.shape(i));
    }

    /// Throws ValueError beyond the most dimensions.
    void push_back(py::ssize_t length) {
        if (m_count == kMost)
            throw py::value_error("zel: wanted an array of at most 32 dimensions");
        m_lengths[m_count++] = length;
    }
    std::size_t size() const { return m_count; }
    bool empty() const { return m_count == 0; }
    py::ssize_t const* begin() const { return m_lengths.data(); }
    py::ssize_t const* end() const { return begin() + m_count; }
    py::ssize_t operator[](std::size_t i) const { return m_lengths[i]; }
    bool operator==(Shape const& other) const {
        return std::equal(begin(), end(), other.begin(), other.end());
    }

private:
    static constexpr std::size_t kMost = 32;

    std::array<py::ssize_t, kMost> m_lengths;
    std::size_t m_count = 0;
};

bool isArray(py::handle object);
/// Whether an object is an array with a mask, which ZEL would not see.
bool isMasked(py::handle object);
bool isNumpyScalar(py::handle object);
/// Whether elements are bools, integers or floats.
bool hasNumbers(py::dtype const& type);
/// Whether an array has the elements of float32 in the order of the machine.
bool hasFloats(py::array const& array);
/// The shape as Python writes it, such as "(4, 3)".
std::string shapeText(py::array const& array);
std::string shapeText(Shape const& shape);
std::string dtypeText(py::array const& array);

/// An object as an array of numbers: as it is if it is an array, else made by NumPy. Throws
/// TypeError if the elements are not bools, integers or floats, or if the array is masked.
py::array numbersOf(py::handle object, std::string const& where);
/// The same converted to float32. An array of float32 is returned as it is; of others,
/// copyOf() makes a copy.
py::array floatsOf(py::handle object, std::string const& where);
/// The same, aligned, as a view that nobody else has.
py::array floatsInPlace(py::handle object, std::string const& where);
/// A copy of the same type, in the order of C.
py::array ownedCopyOf(py::array const& array);
py::array readOnlyViewOf(py::array const& array);
/// A new array of float32 in the order of C.
py::array newFloats(Shape const& shape);
/// A copy as float32 in the order of C, aligned. Handles signals in between if the array is large,
/// and throws what a handler raises.
py::array copyOf(py::array const& array);

/// Positions of shape (..., 3), read in place where their strides allow it.
struct Points {
    py::array array;
    PointView view;
    Shape leading;  ///< the shape without the 3

    /// Reads the positions from a copy. Throws ValueError if the array has another shape by now.
    void copy();
};
Points pointsOf(py::handle object);

/// An array that results are written to: the caller's, or a new one.
class Result {
public:
    /// `out` is None or the caller's array, which must be of float32, of exactly that shape and
    /// writable: else throws TypeError or ValueError.
    Result(py::handle out, Shape const& shape);

    float* data() { return m_data; }
    /// Whether the memory between the first and the last element has a byte in common.
    bool mayOverlap(py::array const& other) const;
    /// Whether an element has a byte in common with one of the other result; also true where NumPy
    /// cannot tell within a short time.
    bool overlaps(Result const& other) const;

    /// Copies to the caller's array what was written elsewhere, and returns the array; of a single
    /// number that is no array of the caller's, the number.
    py::object finish();

private:
    py::array m_target, m_written;  // the same object, unless the target is not contiguous
    float* m_data;
    bool m_isOut;
};

/// The numbers of an element, and the type of each.
template <class T>
constexpr py::ssize_t kNumbers = std::is_same_v<T, Orvane::Math::float3>   ? 3
                                 : std::is_same_v<T, Orvane::Math::float4> ? 4
                                                                           : 1;
template <class T> constexpr bool kIsNumber = kNumbers<T> == 1;
template <class T> using NumberOf = std::conditional_t<kIsNumber<T>, T, float>;

/// A copy of an array of numbers whose rows are Ts, as Quern has it, and back.
template <class T> Quern::Ptr<Quern::Array<T>> copied(py::array const& given) {
    py::array_t<NumberOf<T>, py::array::c_style | py::array::forcecast> const array(given);
    auto made =
        Quern::makePtr<Quern::Array<T>>(Quern::Array<T>::forOverwrite(array.size() / kNumbers<T>));
    if constexpr (std::is_same_v<T, bool>) {
        // A view of bytes as bools may have any of their values.
        auto const* const bytes =
            static_cast<unsigned char const*>(static_cast<void const*>(array.data()));
        for (py::ssize_t i = 0; i < array.size(); ++i) (*made)[i] = bytes[i] != 0;
    } else if (array.size() > 0) {
        std::memcpy(static_cast<void*>(made->data()), array.data(),
                    static_cast<std::size_t>(made->size()) * sizeof(T));
    }
    return made;
}
template <class T> py::array arrayOf(Quern::Array<T> const& values) {
    Shape shape{values.size()};
    if (!kIsNumber<T>) shape.push_back(kNumbers<T>);
    py::array array(py::dtype::of<NumberOf<T>>(),
                    std::vector<py::ssize_t>(shape.begin(), shape.end()));
    if (!values.empty())
        std::memcpy(array.mutable_data(), values.data(), static_cast<std::size_t>(array.nbytes()));
    return array;
}

/// An array of shape (n, 3), or an empty list. Throws as floatsOf() does, and ValueError.
Quern::Ptr<Quern::Array<Orvane::Math::float3>> toVectors(py::handle object,
                                                         std::string const& where);

}  // namespace zel::python
