#include "point_file.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <istream>
#include <string_view>
#include <system_error>
#include <utility>

namespace examples {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kSpace = " \t\r";

/// The text of a line, fit for a message: no control characters, not too long.
std::string shown(std::string_view line) {
    constexpr std::size_t kLongest = 100;
    std::string text(line.substr(0, kLongest));
    while (!text.empty() && text.back() == '\r') text.pop_back();
    std::replace_if(
        text.begin(), text.end(), [](char c) { return (0 <= c && c < ' ') || c == 0x7F; }, '?');
    return line.size() > kLongest ? text + "..." : text;
}

/// Takes the next word off the front of `rest`; empty if there is none.
std::string_view nextWord(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.find_first_not_of(kSpace), rest.size()));
    std::string_view const word = rest.substr(0, rest.find_first_of(kSpace));
    rest.remove_prefix(word.size());
    return word;
}

/// Reads one position; gives what is wrong with the line, or null.
char const* parsePoint(std::string_view line, zel::float3& point) {
    std::string_view rest = line;
    for (int axis = 0; axis < 3; ++axis) {
        std::string_view const word = nextWord(rest);
        if (word.empty()) return "fewer than three numbers";
        char const* const end = word.data() + word.size();
        auto const [stop, error] = std::from_chars(word.data(), end, point[axis]);
        if (error == std::errc::invalid_argument) return "not a number";
        // The whole word is looked at first: "1e99x" is no number, in range or not.
        if (stop != end) return "not a number";
        if (error == std::errc::result_out_of_range) return "number out of range";
    }
    return nextWord(rest).empty() ? nullptr : "more than three numbers";
}

}  // namespace

Quern::Array<zel::float3> readPoints(std::istream& in, std::string const& name) {
    Quern::Array<zel::float3> points;
    std::string line;
    for (long long number = 1; std::getline(in, line); ++number) {
        std::string_view rest = line;
        std::string_view const first = nextWord(rest);
        if (first.empty() || line[0] == '#') continue;
        zel::float3 point;
        if (char const* const problem = parsePoint(line, point))
            throw PointFileError(name + ":" + std::to_string(number) + ": " + problem + ": " +
                                 shown(line));
        points.push_back(point);
    }
    if (in.bad()) throw std::runtime_error(name + ": cannot be read");
    return points;
}

WholeFile::WholeFile(fs::path const& path) : target(path) {
    if (fs::exists(target)) {
        target = fs::canonical(target);  // keeps a symbolic link, and replaces what it leads to
        if (!fs::is_regular_file(target))
            throw std::runtime_error(path.string() + ": not a regular file");
    }
    temporary = target;
    temporary += ".part" + std::to_string(getpid());
    file = std::fopen(temporary.c_str(), "wx");
    if (!file) fail();
}

WholeFile::~WholeFile() {
    if (temporary.empty()) return;
    if (file) std::fclose(file);
    std::error_code ignored;
    fs::remove(temporary, ignored);
}

void WholeFile::write(std::string const& text) {
    if (std::fwrite(text.data(), 1, text.size(), file) != text.size()) fail();
}

void WholeFile::commit() {
    if (std::fclose(std::exchange(file, nullptr)) != 0) fail();
    fs::rename(temporary, target);
    temporary.clear();
}

void WholeFile::fail() const {
    throw std::runtime_error(target.string() +
                             ": cannot be written: " + std::generic_category().message(errno));
}

}  // namespace examples
