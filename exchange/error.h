#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

#include "zel_exchange/api.h"

namespace zel {

/// What is wrong with a file, and where. `what()` is one line:
///
///     points.csv: line 12, column "x": wanted a number, found "abc"
///
/// A name or a piece of the file appears in it without control characters, and shortened.
class ZEL_EXCHANGE_API FileError : public std::runtime_error {
public:
    /// `place` may be empty, for an error that concerns the whole file.
    FileError(std::string file, std::string place, std::string const& message);
    FileError(FileError const&);
    FileError& operator=(FileError const&);
    ~FileError() override;

    std::string const& file() const { return m_file; }
    /// Where in the file, such as "line 12", "byte 80" or "grid \"density\"".
    std::string const& place() const { return m_place; }

private:
    std::string m_file, m_place;
};

namespace detail {

/// A piece of a file as an error shows it: in quotes, without control characters, and shortened.
std::string quoted(std::string_view piece);

}  // namespace detail

}  // namespace zel
