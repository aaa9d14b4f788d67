#include "zel/node/type_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace zel {

Quern::String typeNameOf(std::type_info const& type) {
    int status = 0;
    std::unique_ptr<char, decltype(&std::free)> const demangled(
        abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), &std::free);
    if (status == -1) throw std::bad_alloc();
    return demangled ? demangled.get() : type.name();
}

}  // namespace zel
