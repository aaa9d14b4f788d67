#include "zel_scene/error.h"

#include <string_view>
#include <utility>

#include "zel_scene/shown_text.h"

namespace zel {

namespace {

/// A path for a reader, without the length and the control characters that names in a file may
/// have.
std::string shownPath(std::string_view path) {
    if (path.empty()) return "/";
    std::string shown;
    while (!path.empty()) {
        std::string_view const name = path.substr(0, path.find('/', 1));
        shown += detail::shortened(name);
        path.remove_prefix(name.size());
    }
    return shown;
}

}  // namespace

SceneError::SceneError(std::string path, std::string const& message)
    : std::runtime_error(shownPath(path) + ": " + message), m_path(std::move(path)) {}

SceneError::SceneError(std::size_t line, std::size_t column, std::string const& message)
    : std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": " + message),
      m_line(line), m_column(column) {}

SceneError::SceneError(SceneError const&) = default;
SceneError& SceneError::operator=(SceneError const&) = default;
SceneError::~SceneError() = default;

}  // namespace zel
