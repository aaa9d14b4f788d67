#include "zel_scene/error.h"

#include <utility>

namespace zel {

SceneError::SceneError(std::string path, std::string const& message)
    : std::runtime_error((path.empty() ? std::string("/") : path) + ": " + message),
      m_path(std::move(path)) {}

SceneError::SceneError(std::size_t line, std::size_t column, std::string const& message)
    : std::runtime_error("line " + std::to_string(line) + ", column " + std::to_string(column) +
                         ": " + message),
      m_line(line), m_column(column) {}

SceneError::SceneError(SceneError const&) = default;
SceneError& SceneError::operator=(SceneError const&) = default;
SceneError::~SceneError() = default;

}  // namespace zel
