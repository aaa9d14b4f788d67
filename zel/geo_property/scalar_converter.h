#pragma once

#include <limits>
#include <tuple>

#include "zel_platform/quern_core/array.h"
#include "zel_platform/quern_core/ptr.h"

// Internal: reads an array of one of ten numeric types as floats.
namespace zel {

/// The nearest float to a number of any type; nothing saturates. A double beyond the range of
/// float gives an infinity.
template <class T> constexpr float toFloat(T value) {
    static_assert(std::numeric_limits<float>::is_iec559);
    return static_cast<float>(value);
}

/// Reads elements of an array, one or many at the price of a virtual call. Any number of threads
/// may read, while the array stays as it is.
class ScalarConverter {
public:
    virtual ~ScalarConverter() = default;

    /// Element `index` as a float. The index is not tested: it must lie from 0 below `count`.
    virtual float convert(long long index) const = 0;
    /// Writes `number` elements from `first` on as floats. All of them must lie below `count`.
    virtual void convertRange(long long first, int number, float* to) const = 0;
    /// Writes the elements with `number` indices as floats, and `otherwise` where an index is
    /// outside.
    virtual void convertAll(long long const* indices, int number, float otherwise,
                            float* to) const = 0;

    long long const count;  ///< the number of elements

protected:
    explicit ScalarConverter(long long count) : count(count) {}
    ScalarConverter(ScalarConverter const&) = default;
};

/// Shares the array, which must keep its size. An empty pointer counts as an array without
/// elements. The bytes of a `bool` array must be 0 or 1.
template <class T> class ScalarConverterImpl : public ScalarConverter {
public:
    explicit ScalarConverterImpl(Quern::Ptr<Quern::Array<T>> values);
    float convert(long long index) const override;
    void convertRange(long long first, int number, float* to) const override;
    void convertAll(long long const* indices, int number, float otherwise,
                    float* to) const override;

private:
    Quern::Ptr<Quern::Array<T>> values;
};

/// The element types for which there is a converter, in the order in which a binding tries them.
using ConvertedTypes = std::tuple<signed char, short, int, long long, unsigned char, unsigned short,
                                  unsigned int, unsigned long long, bool, double>;

}  // namespace zel
