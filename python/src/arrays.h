#pragma once

#include <pybind11/numpy.h>

#include <string>
#include <vector>

#include "zel/field/evaluate.h"
#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

// NumPy arrays as positions and results.
namespace zel::python {

namespace py = pybind11;

using Shape = std::vector<py::ssize_t>;

bool isArray(py::handle object);
/// Whether an array has the elements of float32 in the order of the machine.
bool hasFloats(py::array const& array);
/// The shape as Python writes it, such as "(4, 3)".
std::string shapeText(py::array const& array);
std::string shapeText(Shape const& shape);
std::string dtypeText(py::array const& array);

/// An object as an array of numbers: as it is if it is an array, else made by NumPy. Throws
/// TypeError if the elements are not bools, integers or floats.
py::array numbersOf(py::handle object, std::string const& where);
/// The same converted to float32. An array of float32 is returned as it is; others are copies.
py::array floatsOf(py::handle object, std::string const& where);
/// A copy in the order of C, aligned.
py::array copyOf(py::array const& array);

/// Positions of shape (..., 3), read in place where their strides allow it.
struct Points {
    py::array array;
    PointView view;
    Shape leading;  ///< the shape without the 3

    /// Reads the positions from a copy.
    void copy();
};
Points pointsOf(py::handle object, std::string const& where);

/// An array that results are written to: the caller's, or a new one.
class Result {
public:
    /// `out` is None or the caller's array, which must be of float32, of exactly that shape and
    /// writable: else throws TypeError or ValueError.
    Result(py::handle out, Shape shape, char const* name);

    float* data() { return m_data; }
    /// Whether the memory between the first and the last element has a byte in common.
    bool mayOverlap(py::array const& other) const;
    bool mayOverlap(Result const& other) const { return mayOverlap(other.m_target); }

    /// Copies to the caller's array what was written elsewhere, and returns the array; of a single
    /// number that is no array of the caller's, the number.
    py::object finish();

private:
    py::array m_target, m_written;  // the same object, unless the target is not contiguous
    float* m_data;
    bool m_isOut;
};

/// An array of shape (n, 3) as Quern has it, and back.
Quern::Ptr<Quern::Array<Orvane::Math::float3>> toVectors(py::handle object,
                                                         std::string const& where);
py::array arrayOf(Quern::Array<Orvane::Math::float3> const& vectors);

}  // namespace zel::python
