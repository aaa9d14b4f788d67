#include "zel/geo_property/scalar_converter.h"

#include <utility>

#include "zel/geo_property/property_binding.h"

namespace zel {

template <class T>
ScalarConverterImpl<T>::ScalarConverterImpl(Quern::Ptr<Quern::Array<T>> values)
    : ScalarConverter(values ? values->size() : 0), values(std::move(values)) {}

template <class T> float ScalarConverterImpl<T>::convert(long long index) const {
    return toFloat((*values)[index]);
}

template <class T>
void ScalarConverterImpl<T>::convertRange(long long first, int number, float* to) const {
    T const* const from = values->data() + first;
    for (int n = 0; n < number; ++n) to[n] = toFloat(from[n]);
}

template <class T>
void ScalarConverterImpl<T>::convertAll(long long const* indices, int number, float otherwise,
                                        float* to) const {
    T const* const from = values ? values->data() : nullptr;
    for (int n = 0; n < number; ++n)
        to[n] = detail::inside(indices[n], count) ? toFloat(from[indices[n]]) : otherwise;
}

template class ScalarConverterImpl<signed char>;
template class ScalarConverterImpl<short>;
template class ScalarConverterImpl<int>;
template class ScalarConverterImpl<long long>;
template class ScalarConverterImpl<unsigned char>;
template class ScalarConverterImpl<unsigned short>;
template class ScalarConverterImpl<unsigned int>;
template class ScalarConverterImpl<unsigned long long>;
template class ScalarConverterImpl<bool>;
template class ScalarConverterImpl<double>;

}  // namespace zel
