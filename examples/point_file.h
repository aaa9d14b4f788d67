#pragma once

#include <zel/zel.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace examples {

/// Reports a line that is not a position, as `FILE:LINE: message: text of the line`.
class PointFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

/// Reads positions, three numbers a line with spaces, tabs or a comma between, in decimal notation,
/// with or without a leading `+`; `inf` and `nan` are numbers too. A number too small for a float
/// is read as the nearest one. Skips blank lines, comments, which start with `#`, and a byte order
/// mark.
class PointReader {
public:
    /// Opens a file; `-` is the standard input. Throws std::runtime_error if it cannot be opened.
    explicit PointReader(std::string const& path);

    /// Reads the next `most` positions, or fewer at the end of the file. Throws PointFileError for
    /// any other line and for a number too large for a float, and std::runtime_error if reading
    /// fails.
    Quern::Array<zel::float3> read(long long most);

private:
    bool nextLine(std::string_view& line);
    bool fill();

    std::string name;
    FilePtr opened;
    std::FILE* file;
    std::string buffer;
    std::size_t begin = 0;  // of the unread part of the buffer
    long long lineNumber = 0;
};

/// A file to write. A regular file, or one that does not exist yet, appears complete or not at all:
/// it is written under a temporary name beside its target, and renamed by `commit`. Devices, pipes
/// and the standard output, `-`, are written directly. Errors are std::runtime_error with the name
/// of the file.
class OutputFile {
public:
    /// Throws if the file cannot be written, or is a directory.
    explicit OutputFile(std::string const& path);
    ~OutputFile();
    OutputFile(OutputFile const&) = delete;
    OutputFile& operator=(OutputFile const&) = delete;

    void write(std::string const& text);
    void commit();

private:
    [[noreturn]] void fail() const;

    std::string name;
    std::filesystem::path target, temporary;  // of a file that commit() renames
    FilePtr opened;
    std::FILE* file = nullptr;
};

}  // namespace examples
