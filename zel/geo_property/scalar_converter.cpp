#include "zel/geo_property/scalar_converter.h"

#include <utility>

namespace zel {

template <class T>
ScalarConverterImpl<T>::ScalarConverterImpl(Quern::Ptr<Quern::Array<T>> values)
    : ScalarConverter(values ? values->size() : 0), values(std::move(values)) {}

template <class T> float ScalarConverterImpl<T>::convert(long long index) const {
    return toFloat((*values)[index]);
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
