#include "zel_platform/quern_core/string.h"

#include <ostream>
#include <utility>

namespace Quern {

String::String(char const* text) : String(std::string(text ? text : "")) {}

String::String(std::string text) {
    if (!text.empty()) shared = makePtr<std::string const>(std::move(text));
}

String::operator std::string() const {
    return shared ? *shared : std::string();
}

std::ostream& operator<<(std::ostream& stream, StringView text) {
    return stream << text.standardView();
}

}  // namespace Quern
