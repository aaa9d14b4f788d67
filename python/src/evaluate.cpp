#include "evaluate.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <optional>
#include <stdexcept>

#include "arguments.h"
#include "arrays.h"
#include "callable.h"
#include "errors.h"
#include "interrupt.h"
#include "values.h"
#include "zel/field/evaluate.h"

namespace zel::python {

namespace {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

static_assert(sizeof(float3) == 3 * sizeof(float) && sizeof(float3x3) == 9 * sizeof(float));

/// Results at positions, of which one may be missing.
template <class Interface> struct Job {
    using Value = typename Interface::Value;
    using Gradient = typename Interface::Gradient;

    Interface const& field;
    PointView points;
    Value* values;
    Gradient* gradients;
    long long firstIndex;
    bool hasFunction;
    double cost;  ///< of a position, as costOf() has it

    /// Evaluates `count` positions from `first` on.
    void run(std::size_t first, std::size_t count, std::stop_token const& stop = {}) const {
        auto const at = static_cast<std::ptrdiff_t>(first) * points.stride;
        PointView const part{points.x + at, points.y + at, points.z + at, points.stride, count};
        EvaluateOptions options;
        options.firstIndex = firstIndex + static_cast<long long>(first);
        options.stop = stop;
        // The calls of a function take turns: of many threads, they would only get small blocks.
        constexpr std::size_t kWorthSharing = 16384;
        options.parallel = !hasFunction || count > kWorthSharing;
        std::span<Value> const partOfValues(values ? values + first : nullptr, values ? count : 0);
        if (!gradients) return evaluate(field, part, partOfValues, options);
        evaluate(field, part, partOfValues, std::span<Gradient>(gradients + first, count), options);
    }
};

/// Evaluates all positions without the interpreter's lock. This thread begins with small parts,
/// each kGrowth times the one before it, and measures them. As soon as the next part may take long,
/// another thread does the rest, so that this one can handle signals. The measured time alone does
/// not tell: with a switch in the tree, a part may take much longer than those before it. So this
/// thread does no part either that may evaluate too many nodes.
template <class Interface> void evaluateAll(Job<Interface> const& job) {
    constexpr std::size_t kBlock = 256, kGrowth = 8, kMost = 16384;
    constexpr double kMostCost = 1 << 19;  // less than 0.05 s
    constexpr std::chrono::duration<double> kLong(0.005);
    std::size_t const count = job.points.count;
    auto const isDear = [&](std::size_t part) {
        return job.cost * static_cast<double>(part) > kMostCost;
    };

    std::size_t done = 0;
    std::size_t part = std::min(count, kBlock);
    if (!isDear(part))
        withoutLock([&] {
            if (part == count) {
                job.run(0, count);
                done = count;
                return;
            }
            while (part > 0) {
                auto const start = std::chrono::steady_clock::now();
                job.run(done, part);
                std::chrono::duration<double> const taken =
                    std::chrono::steady_clock::now() - start;
                done += part;
                std::size_t const next = std::min(count - done, kGrowth * part);
                bool const isLong =
                    taken * (static_cast<double>(next) / static_cast<double>(part)) > kLong;
                part = isLong || next > kMost || isDear(next) ? 0 : next;
            }
        });
    if (done == count) return;
    interruptibly([&](std::stop_token const& stop) {
        if (count > kBlock) return job.run(done, count - done, stop);
        // Within a block, an evaluation does not stop.
        constexpr double kLeast = 8;  // of fewer positions, a block takes hardly less time
        auto const most = static_cast<std::size_t>(
            std::clamp(kMostCost / job.cost, kLeast, static_cast<double>(kBlock)));
        for (; done < count; done += std::min(most, count - done))
            job.run(done, std::min(most, count - done), stop);
    });
}

struct Wanted {
    bool values, gradients;
};

/// The index of the first position.
long long toIndex(PyObject* object) {
    return object ? toInteger(object, 0, std::numeric_limits<std::int64_t>::max(), "index0") : 0;
}
/// Throws if an index of `count` positions is no 64-bit number.
void checkIndex(long long first, std::size_t count) {
    // NumPy has no array of more elements than a signed number can count.
    long long const most = std::numeric_limits<long long>::max() - static_cast<long long>(count);
    if (first > most)
        throw py::value_error("index0: wanted an integer from 0 to " + std::to_string(most) +
                              " for " + std::to_string(count) + " positions, got " +
                              std::to_string(first));
}

Shape withDimensions(Shape shape, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) shape.push_back(3);
    return shape;
}

template <class Interface>
py::object results(py::handle self, PyObject* xyz, PyObject* out, PyObject* index0, Wanted wanted) {
    constexpr std::size_t kValueDimensions = std::is_same_v<Interface, VectorField> ? 1 : 0;
    checkLevels(self);
    // First: __index__ of the caller's class may change the shape of the arrays.
    long long const index = toIndex(index0);
    Points points = pointsOf(xyz);
    checkIndex(index, points.view.count);

    py::handle outs[2] = {Py_None, Py_None};
    if (out && out != Py_None) {
        if (wanted.values && wanted.gradients) {
            if (!PyTuple_Check(out) || PyTuple_GET_SIZE(out) != 2)
                throw py::type_error("out: wanted a tuple of two arrays, got " + typeName(out));
            outs[0] = PyTuple_GET_ITEM(out, 0);
            outs[1] = PyTuple_GET_ITEM(out, 1);
        } else {
            outs[wanted.values ? 0 : 1] = out;
        }
    }
    std::optional<Result> values, gradients;
    if (wanted.values) values.emplace(outs[0], withDimensions(points.leading, kValueDimensions));
    if (wanted.gradients)
        gradients.emplace(outs[1], withDimensions(points.leading, kValueDimensions + 1));
    if (values && gradients && values->overlaps(*gradients))
        throw py::value_error("out: the two arrays overlap");
    if (out && ((values && values->mayOverlap(points.array)) ||
                (gradients && gradients->mayOverlap(points.array))))
        points.copy();

    auto const root = std::get<Quern::Ptr<Interface>>(fieldOf(self).tree);
    Job<Interface> const job{
        *root,
        points.view,
        values ? reinterpret_cast<typename Interface::Value*>(values->data()) : nullptr,
        gradients ? reinterpret_cast<typename Interface::Gradient*>(gradients->data()) : nullptr,
        index,
        mayHaveFunction(fieldOf(self)),
        costOf(fieldOf(self)) * (gradients ? 7 : 1)};
    try {
        evaluateAll(job);
    } catch (std::length_error const& error) {
        // Of a thread that took a part, and whose stack is smaller.
        PyErr_SetString(PyExc_RecursionError, error.what());
        throw py::error_already_set();
    }
    if (values && gradients) return py::make_tuple(values->finish(), gradients->finish());
    return values ? values->finish() : gradients->finish();
}

/// `args` are `placed` arguments by place and then those of `keywords`.
PyObject* answer(char const* function, PyObject* self, PyObject* const* args, Py_ssize_t placed,
                 PyObject* keywords, Wanted wanted) {
    return guardedObject([&] {
        constexpr std::string_view kNames[] = {"xyz", "out", "index0"};
        PyObject* given[std::size(kNames)]{};
        findArguments(function, kNames, args, static_cast<std::size_t>(placed), keywords, given);
        auto const& [xyz, out, index0] = given;
        if (!xyz) throw py::type_error(std::string(function) + ": xyz is missing");
        return isScalarField(self)
                   ? results<ScalarField>(self, xyz, out, index0, wanted).release().ptr()
                   : results<VectorField>(self, xyz, out, index0, wanted).release().ptr();
    });
}

}  // namespace

PyObject* callField(PyObject* self, PyObject* const* args, std::size_t countAndFlag,
                    PyObject* keywords) {
    return answer("zel.Field", self, args, PyVectorcall_NARGS(countAndFlag), keywords,
                  {true, false});
}

PyObject* valueAndGrad(PyObject* self, PyObject* const* args, Py_ssize_t count,
                       PyObject* keywords) {
    return answer("zel.Field.value_and_grad", self, args, count, keywords, {true, true});
}

PyObject* gradient(PyObject* self, PyObject* const* args, Py_ssize_t count, PyObject* keywords) {
    return answer("zel.Field.grad", self, args, count, keywords, {false, true});
}

}  // namespace zel::python
