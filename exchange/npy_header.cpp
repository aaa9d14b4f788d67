#include "npy_header.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <optional>
#include <stdexcept>

#include "number_text.h"

namespace zel {

namespace {

constexpr std::string_view kMagic = "\x93NUMPY";
constexpr std::size_t kMostAxes = 32;
/// A header is some hundred bytes; NumPy itself refuses more than 10000 by default.
constexpr std::size_t kLongestHeader = 1 << 16;

/// The number of numbers, or none if they take more bytes than an offset can tell.
std::optional<std::uint64_t> countOf(NpyLayout const& layout) {
    if (std::find(layout.shape.begin(), layout.shape.end(), 0U) != layout.shape.end()) return 0;
    std::uint64_t const most =
        (~std::uint64_t{0} >> 1) / layout.bytesPerNumber() - (std::uint64_t{1} << 20);
    std::uint64_t count = 1;
    for (std::uint64_t const length : layout.shape) {
        if (length > most / count) return {};
        count *= length;
    }
    return count;
}

/// Reads the dictionary `{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }`: the three
/// keys in any order, each once, and nothing else of Python.
class DictionaryParser {
public:
    DictionaryParser(std::string_view text, std::string const& file_) : rest(text), file(file_) {}

    NpyLayout parse() {
        expect('{');
        while (!accept('}')) {
            std::string_view const key = quotedText();
            expect(':');
            if (key == "descr" && !hasType) {
                readType();
            } else if (key == "fortran_order" && !hasOrder) {
                readOrder();
            } else if (key == "shape" && !hasShape) {
                readShape();
            } else {
                fail("unexpected key " + detail::quoted(key));
            }
            if (!accept(',')) {
                expect('}');
                break;
            }
        }
        skipSpace();
        if (!rest.empty()) fail("unexpected text " + shown());
        if (!hasType || !hasOrder || !hasShape)
            fail(std::string("there is no key '") +
                 (!hasType    ? "descr"
                  : !hasOrder ? "fortran_order"
                              : "shape") +
                 "'");
        if (!countOf(layout))
            fail("the shape " + detail::shapeText(layout.shape) + " is too large");
        return layout;
    }

private:
    [[noreturn]] void fail(std::string const& message) const {
        throw FileError(file, "header", message);
    }
    std::string shown() const { return detail::quoted(rest); }

    void skipSpace() {
        rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
    }
    bool accept(char c) {
        skipSpace();
        if (!rest.starts_with(c)) return false;
        rest.remove_prefix(1);
        return true;
    }
    void expect(char c) {
        if (!accept(c)) fail(std::string("wanted '") + c + "', found " + shown());
    }
    bool acceptWord(std::string_view word) {
        skipSpace();
        if (!rest.starts_with(word)) return false;
        rest.remove_prefix(word.size());
        return true;
    }

    /// A text in quotes of either kind, without escapes.
    std::string_view quotedText() {
        skipSpace();
        char const quote = rest.empty() ? ' ' : rest[0];
        std::size_t const end =
            quote == '\'' || quote == '"' ? rest.find(quote, 1) : std::string_view::npos;
        if (end == std::string_view::npos) fail("wanted a text in quotes, found " + shown());
        std::string_view const text = rest.substr(1, end - 1);
        rest.remove_prefix(end + 1);
        return text;
    }

    void readType() {
        skipSpace();
        if (rest.starts_with('['))
            fail("the numbers are records " + shown() + "; only arrays of f4 and f8 are read");
        std::string_view const type = quotedText();
        bool const known = type.size() == 3 &&
                           (type[0] == '<' || type[0] == '>' || type[0] == '=') && type[1] == 'f' &&
                           (type[2] == '4' || type[2] == '8');
        if (!known)
            fail("the type is " + detail::quoted(type) +
                 "; only f4 and f8, floats of 4 and 8 bytes, are read");
        layout.isDouble = type[2] == '8';
        layout.isBigEndian =
            type[0] == '>' || (type[0] == '=' && std::endian::native == std::endian::big);
        hasType = true;
    }

    void readOrder() {
        bool const isTrue = acceptWord("True");
        if (!isTrue && !acceptWord("False")) fail("wanted True or False, found " + shown());
        layout.isFortran = isTrue;
        hasOrder = true;
    }

    void readShape() {
        expect('(');
        while (!accept(')')) {
            skipSpace();
            std::uint64_t length = 0;
            auto const [end, error] =
                std::from_chars(rest.data(), rest.data() + rest.size(), length);
            if (error != std::errc() || length > ~std::uint64_t{0} >> 1)
                fail("wanted the length of an axis, found " + shown());
            rest.remove_prefix(static_cast<std::size_t>(end - rest.data()));
            layout.shape.push_back(length);
            if (layout.shape.size() > kMostAxes)
                fail("there are more than " + std::to_string(kMostAxes) + " axes");
            if (accept(',')) continue;
            // (3) is a number in parentheses, not a shape.
            if (layout.shape.size() == 1) fail("wanted ',', found " + shown());
            expect(')');
            break;
        }
        hasShape = true;
    }

    std::string_view rest;
    std::string const& file;
    NpyLayout layout;
    bool hasType = false, hasOrder = false, hasShape = false;
};

std::string_view textOf(std::span<std::byte const> bytes) {
    return {reinterpret_cast<char const*>(bytes.data()), bytes.size()};
}

}  // namespace

std::uint64_t NpyLayout::count() const {
    if (auto const count = countOf(*this)) return *count;
    throw std::invalid_argument("zel::NpyLayout: the shape " + detail::shapeText(shape) +
                                " is too large");
}

std::string detail::shapeText(std::vector<std::uint64_t> const& shape) {
    std::string text = "(";
    for (std::size_t i = 0; i < shape.size(); ++i)
        text += (i > 0 ? ", " : "") + std::to_string(shape[i]);
    return text + (shape.size() == 1 ? ",)" : ")");
}

std::string npyHeader(NpyLayout const& layout, bool room) {
    layout.count();  // throws
    if (layout.shape.size() > kMostAxes)
        throw std::invalid_argument("zel::npyHeader: an array has at most " +
                                    std::to_string(kMostAxes) + " axes, not " +
                                    std::to_string(layout.shape.size()));
    std::string text = "{'descr': '";
    text += layout.isBigEndian ? '>' : '<';
    text += layout.isDouble ? "f8" : "f4";
    text += "', 'fortran_order': ";
    text += layout.isFortran ? "True" : "False";
    text += ", 'shape': " + detail::shapeText(layout.shape) + ", }";
    std::size_t length = text.size();
    if (room && !layout.shape.empty())
        length += detail::kMostCountDigits - std::to_string(layout.shape[0]).size();
    // The line end is the last byte before the numbers.
    constexpr std::size_t kPrefix = 10;
    std::size_t const total = (kPrefix + length + 1 + 63) / 64 * 64;
    std::string header(kMagic);
    header += {'\1', '\0', static_cast<char>((total - kPrefix) & 0xFF),
               static_cast<char>((total - kPrefix) >> 8)};
    header += text;
    header.resize(total - 1, ' ');
    return header + '\n';
}

bool detail::isNpy(std::span<std::byte const> begin) {
    return textOf(begin).starts_with(kMagic);
}

NpyLayout detail::readNpyHeader(ByteSource const& source) {
    std::byte begin[12] = {};
    std::uint64_t const size = source.size().value_or(0);
    if (size < sizeof begin || (source.readAt(0, begin), !isNpy(begin)))
        source.fail("byte 0", "this is no .npy file");
    auto const byteAt = [&](int i) { return std::to_integer<std::size_t>(begin[i]); };
    std::size_t const version = byteAt(6);
    if (version < 1 || version > 3 || byteAt(7) != 0)
        source.fail("byte 6", "version " + std::to_string(version) + "." +
                                  std::to_string(byteAt(7)) + " of the format is not known");
    std::size_t length = byteAt(8) | byteAt(9) << 8;
    if (version > 1) length |= byteAt(10) << 16 | byteAt(11) << 24;
    std::size_t const prefix = version > 1 ? 12 : 10;
    if (length > kLongestHeader)
        source.fail("byte 8", "the header is " + std::to_string(length) + " bytes long, above " +
                                  std::to_string(kLongestHeader));
    if (length > size - prefix) source.fail("byte 8", "the file ends within its header");
    std::string text(length, '\0');
    source.readAt(prefix, std::as_writable_bytes(std::span(text)));

    NpyLayout layout = DictionaryParser(text, source.name()).parse();
    layout.dataOffset = prefix + length;
    std::uint64_t const wanted = layout.count() * layout.bytesPerNumber();
    if (wanted > size - layout.dataOffset)
        source.fail("header", "the shape " + shapeText(layout.shape) + " takes " +
                                  std::to_string(wanted) + " bytes, and the file has " +
                                  std::to_string(size - layout.dataOffset));
    return layout;
}

}  // namespace zel
