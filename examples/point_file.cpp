#include "point_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace examples {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSpace = " \t\r", kByteOrderMark = "\xEF\xBB\xBF";

[[noreturn]] void failWith(std::string const& name, char const* what) {
    throw std::runtime_error(name + ": " + what + ": " + std::generic_category().message(errno));
}

/// The text of a line for a message: without control characters, and shortened.
std::string shown(std::string_view line) {
    constexpr std::size_t kLongest = 100;
    std::string text(line.substr(0, kLongest));
    while (!text.empty() && text.back() == '\r') text.pop_back();
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (0 <= c && c < ' ') || c == 0x7F; }, '?');
    return line.size() > kLongest ? text + "..." : text;
}

void skipSpace(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(kSpace), rest.size()));
}

/// Removes the first word from `rest` and returns it; empty if there is none.
std::string_view nextWord(std::string_view& rest) {
    skipSpace(rest);
    std::string_view const word = rest.substr(0, rest.find_first_of(" \t\r,"));
    rest.remove_prefix(word.size());
    return word;
}

/// Reads a number. Returns a message about an error, or null.
char const* parseNumber(std::string_view word, float& number) {
    if (word.size() > 1 && word[0] == '+' && word[1] != '-') word.remove_prefix(1);
    char const* const end = word.data() + word.size();
    auto const [stop, error] = std::from_chars(word.data(), end, number);
    // The syntax of the whole word comes first: "1e99x" is not a number, so its range is no error.
    if (error == std::errc::invalid_argument || stop != end) return "not a number";
    if (error == std::errc::result_out_of_range) {
        // Unlike std::from_chars, strtof distinguishes numbers too small from numbers too large.
        number = std::strtof(std::string(word).c_str(), nullptr);
        if (std::isinf(number)) return "number out of range";
    }
    return nullptr;
}

/// Reads a position. Returns a message about an error in the line, or null.
char const* parsePoint(std::string_view rest, zel::float3& point) {
    for (int axis = 0; axis < 3; ++axis) {
        skipSpace(rest);
        if (axis > 0 && rest.starts_with(',')) rest.remove_prefix(1);
        std::string_view const word = nextWord(rest);
        if (word.empty()) return rest.empty() ? "fewer than three numbers" : "not a number";
        if (char const* const problem = parseNumber(word, point[axis])) return problem;
    }
    skipSpace(rest);
    return rest.empty() ? nullptr : "more than three numbers";
}

}  // namespace

PointReader::PointReader(std::string const& path)
    : name(path == "-" ? "standard input" : path),
      opened(path == "-" ? nullptr : std::fopen(path.c_str(), "r")),
      file(path == "-" ? stdin : opened.get()) {
    if (!file) failWith(name, "cannot be opened");
}

/// Appends the next part of the file to the unread text. Returns false at the end of the file.
bool PointReader::fill() {
    constexpr std::size_t kLeast = std::size_t{1} << 20, kLongestLine = std::size_t{1} << 24;
    buffer.erase(0, std::exchange(begin, 0));
    std::size_t const kept = buffer.size();
    if (kept > kLongestLine)
        throw PointFileError(name + ":" + std::to_string(lineNumber + 1) +
                             ": line too long: " + shown(buffer));
    buffer.resize(kept + std::max(kLeast, kept));
    std::size_t const count = std::fread(buffer.data() + kept, 1, buffer.size() - kept, file);
    buffer.resize(kept + count);
    if (std::ferror(file)) failWith(name, "cannot be read");
    return count > 0;
}

bool PointReader::nextLine(std::string_view& line) {
    std::size_t newline = buffer.find('\n', begin);
    while (newline == std::string::npos && fill()) newline = buffer.find('\n', begin);
    if (begin == buffer.size()) return false;
    line = std::string_view(buffer).substr(begin, newline - begin);
    begin = newline == std::string::npos ? buffer.size() : newline + 1;
    if (++lineNumber == 1 && line.starts_with(kByteOrderMark))
        line.remove_prefix(kByteOrderMark.size());
    return true;
}

Quern::Array<zel::float3> PointReader::read(long long most) {
    Quern::Array<zel::float3> points;
    points.reserve(most);
    std::string_view line;
    while (points.size() < most && nextLine(line)) {
        std::string_view rest = line;
        skipSpace(rest);
        if (rest.empty() || rest[0] == '#') continue;
        zel::float3 point;
        if (char const* const problem = parsePoint(rest, point))
            throw PointFileError(name + ":" + std::to_string(lineNumber) + ": " + problem + ": " +
                                 shown(line));
        points.push_back(point);
    }
    return points;
}

OutputFile::OutputFile(std::string const& path)
    : name(path == "-" ? "standard output" : path), target(path) {
    if (path == "-") {
        file = stdout;
        if (std::fflush(stdout) != 0) fail();
        return;
    }
    bool const isOpen = path == "/dev/stdout" || path.starts_with("/dev/fd/");
    fs::file_status const status = fs::status(target);
    if (isOpen || (fs::exists(status) && !fs::is_regular_file(status))) {
        opened.reset(std::fopen(path.c_str(), isOpen ? "a" : "w"));
    } else {
        // A symbolic link is kept: its target is replaced.
        if (fs::exists(status))
            target = fs::canonical(target);
        else if (fs::is_symlink(target))
            target = target.parent_path() / fs::read_symlink(target);
        temporary = target;
        temporary += ".part" + std::to_string(getpid());
        opened.reset(std::fopen(temporary.c_str(), "wx"));
        if (opened && fs::exists(status)) {
            std::error_code ignored;  // some file systems have no permissions
            fs::permissions(temporary, status.permissions(), ignored);
        }
    }
    file = opened.get();
    if (!file) {
        temporary.clear();
        fail();
    }
}

OutputFile::~OutputFile() {
    std::error_code ignored;
    if (!temporary.empty()) fs::remove(temporary, ignored);
}

void OutputFile::write(std::string const& text) {
    if (std::fwrite(text.data(), 1, text.size(), file) != text.size()) fail();
}

void OutputFile::commit() {
    if (std::fflush(file) != 0) fail();
    if (opened && std::fclose(opened.release()) != 0) fail();
    if (temporary.empty()) return;
    fs::rename(temporary, target);
    temporary.clear();
}

void OutputFile::fail() const {
    failWith(name, "cannot be written");
}

}  // namespace examples
