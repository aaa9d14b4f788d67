#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

#include "zel_scene/api.h"

namespace zel {

/// What is wrong with a scene, and where. `what()` begins with the place, in which long names are
/// cut, and control characters escaped:
///
///     /root/a/children/1/radius: wanted a number, found "one"
///     line 3, column 14: syntax error while parsing value - ...
class ZEL_SCENE_API SceneError : public std::runtime_error {
public:
    /// For an error in a scene whose JSON is in order.
    SceneError(std::string path, std::string const& message);
    /// For a text that is not JSON, or has a number beyond the range of a double.
    SceneError(std::size_t line, std::size_t column, std::string const& message);
    SceneError(SceneError const&);
    SceneError& operator=(SceneError const&);
    ~SceneError() override;

    /// The members and indices from the top of the file to the place, or the children from the root
    /// of a tree, each after a '/'. Empty for an error with a line and a column. A '/' in a name is
    /// "~1", and a '~' is "~0", as in a JSON pointer.
    std::string const& path() const { return m_path; }
    /// From 1; 0 for an error that has a path. Columns count bytes.
    std::size_t line() const { return m_line; }
    std::size_t column() const { return m_column; }

private:
    std::string m_path;
    std::size_t m_line = 0, m_column = 0;
};

}  // namespace zel
