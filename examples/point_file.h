#pragma once

#include <zel/zel.h>

#include <cstdio>
#include <filesystem>
#include <iosfwd>
#include <stdexcept>
#include <string>

namespace examples {

/// A line that is no position. Its text reads `FILE:LINE: message: text of the line`.
class PointFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Reads positions, `x y z` a line with spaces or tabs between, in the notation of C++ without a
/// leading `+`; `inf` and `nan` are numbers too. Skips blank lines and lines that start with `#`.
/// Throws PointFileError for any other line and for a number that no float can hold, and
/// std::runtime_error if reading fails. `name` stands for the file in messages.
Quern::Array<zel::float3> readPoints(std::istream& in, std::string const& name);

/// A file that appears complete or not at all: it is written beside its final place and moved there
/// by `commit`. A file that was there before stays until then.
class WholeFile {
public:
    /// Throws std::runtime_error if `path` names something other than a regular file, or nothing
    /// can be written there.
    explicit WholeFile(std::filesystem::path const& path);
    ~WholeFile();
    WholeFile(WholeFile const&) = delete;
    WholeFile& operator=(WholeFile const&) = delete;

    void write(std::string const& text);
    void commit();

private:
    [[noreturn]] void fail() const;

    std::filesystem::path target, temporary;
    std::FILE* file = nullptr;
};

}  // namespace examples
