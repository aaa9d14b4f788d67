#pragma once

#include <ios>
#include <locale>
#include <new>
#include <sstream>
#include <string>

namespace Quern::Internal {

/// What `write(stream)` writes to a stream, in every locale with a decimal point. Throws
/// std::bad_alloc without memory, where a stream would cut the text off in silence.
template <class Write> std::string textOf(Write const& write) {
    std::ostringstream stream;
    stream.imbue(std::locale::classic());
    stream.exceptions(std::ios::badbit);
    try {
        write(stream);
    } catch (std::ios_base::failure const&) {
        throw std::bad_alloc();
    }
    return stream.str();
}

}  // namespace Quern::Internal
