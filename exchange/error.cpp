#include "error.h"

#include <algorithm>
#include <utility>

namespace zel {

namespace {

/// The text without control characters, of which those from U+0080 to U+009F have two bytes.
std::string printable(std::string text) {
    for (std::size_t i = 0; i + 1 < text.size(); ++i)
        if (text[i] == '\xC2' && (text[i + 1] & 0xE0) == 0x80) text.replace(i, 2, "?");
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (0 <= c && c < ' ') || c == 0x7F; }, '?');
    return text;
}

std::string lineOf(std::string const& file, std::string const& place, std::string const& message) {
    std::string line = printable(file) + ": ";
    if (!place.empty()) line += printable(place) + ": ";
    return line + printable(message);
}

}  // namespace

FileError::FileError(std::string file, std::string place, std::string const& message)
    : std::runtime_error(lineOf(file, place, message)), m_file(std::move(file)),
      m_place(std::move(place)) {}
FileError::FileError(FileError const&) = default;
FileError& FileError::operator=(FileError const&) = default;
FileError::~FileError() = default;

std::string detail::quoted(std::string_view piece) {
    constexpr std::size_t kLongest = 60;
    std::string text = printable(std::string(piece.substr(0, kLongest)));
    if (piece.size() > kLongest) text += "...";
    return std::string(1, '"').append(text).append(1, '"');
}

}  // namespace zel
