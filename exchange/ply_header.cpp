#include "ply_header.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <set>
#include <string_view>
#include <utility>

#include "error.h"
#include "point_format.h"

namespace zel::detail {

namespace {

/// A header is some hundred bytes.
constexpr std::size_t kLongestHeader = std::size_t{1} << 20;

std::vector<std::string_view> wordsOf(std::string_view line) {
    constexpr std::string_view kBlanks = " \t";
    std::vector<std::string_view> words;
    for (std::size_t begin = 0;
         (begin = line.find_first_not_of(kBlanks, begin)) != std::string_view::npos;) {
        std::size_t const end = std::min(line.find_first_of(kBlanks, begin), line.size());
        words.push_back(line.substr(begin, end - begin));
        begin = end;
    }
    return words;
}

std::optional<PlyType> typeOf(std::string_view name) {
    static constexpr std::pair<std::string_view, PlyType> kNames[] = {
        {"char", PlyType::kInt8},      {"int8", PlyType::kInt8},     {"uchar", PlyType::kUint8},
        {"uint8", PlyType::kUint8},    {"short", PlyType::kInt16},   {"int16", PlyType::kInt16},
        {"ushort", PlyType::kUint16},  {"uint16", PlyType::kUint16}, {"int", PlyType::kInt32},
        {"int32", PlyType::kInt32},    {"uint", PlyType::kUint32},   {"uint32", PlyType::kUint32},
        {"float", PlyType::kFloat},    {"float32", PlyType::kFloat}, {"double", PlyType::kDouble},
        {"float64", PlyType::kDouble},
    };
    for (auto const& [known, type] : kNames)
        if (name == known) return type;
    return {};
}

class HeaderParser {
public:
    explicit HeaderParser(ByteReader& source_) : source(source_) {}

    PlyHeader parse() {
        if (nextLine() != "ply") fail("wanted the line ply");
        for (;;) {
            std::string_view const line = nextLine();
            words = wordsOf(line);
            std::string_view const key = words.empty() ? std::string_view() : words[0];
            if (key == "comment" || key == "obj_info") continue;
            if (key == "end_header" && words.size() == 1) break;
            if (key == "format" && words.size() == 3 && !hasFormat) {
                readFormat();
            } else if (key == "element" && words.size() == 3 && hasFormat) {
                readElement();
            } else if (key == "property" && words.size() >= 3 && !header.elements.empty()) {
                readProperty();
            } else {
                fail("this is no line of a header: " + detail::quoted(line));
            }
        }
        if (!hasFormat) fail("the header has no line format");
        return std::move(header);
    }

private:
    [[noreturn]] void fail(std::string const& message) const { source.failAtLine(message); }

    std::string_view nextLine() {
        std::string_view line;
        if (!source.nextLine(line)) fail("the file ends within its header");
        if (source.offset() > kLongestHeader) fail("the header is too long");
        return line;
    }

    void readFormat() {
        if (words[2] != "1.0") fail("the version is not 1.0");
        if (words[1] == "ascii")
            header.encoding = PlyEncoding::kAscii;
        else if (words[1] == "binary_little_endian")
            header.encoding = PlyEncoding::kLittleEndian;
        else if (words[1] == "binary_big_endian")
            header.encoding = PlyEncoding::kBigEndian;
        else
            fail("the format " + detail::quoted(words[1]) + " is not known");
        hasFormat = true;
    }

    void readElement() {
        PlyElement element;
        element.name = words[1];
        char const* const end = words[2].data() + words[2].size();
        auto const [stop, error] = std::from_chars(words[2].data(), end, element.count);
        if (error != std::errc() || stop != end || element.count > ~std::uint64_t{0} >> 1)
            fail("wanted how many elements there are, found " + detail::quoted(words[2]));
        if (!elementNames.insert(element.name).second)
            fail("there are two elements " + detail::quoted(element.name));
        header.elements.push_back(std::move(element));
    }

    PlyType readType(std::string_view word) {
        std::optional<PlyType> const type = typeOf(word);
        if (!type) fail("the type " + detail::quoted(word) + " is not known");
        return *type;
    }

    void readProperty() {
        PlyProperty property;
        property.name = words.back();
        property.isList = words[1] == "list";
        if (words.size() != (property.isList ? 5U : 3U)) fail("this is no property");
        if (property.isList) {
            property.countType = readType(words[2]);
            if (property.countType == PlyType::kFloat || property.countType == PlyType::kDouble)
                fail("the length of a list is an integer");
        }
        property.type = readType(words[words.size() - 2]);
        auto& properties = header.elements.back().properties;
        if (properties.size() == kMostColumns)
            fail("there are more than " + std::to_string(kMostColumns) + " properties");
        for (PlyProperty const& other : properties)
            if (other.name == property.name)
                fail("there are two properties " + detail::quoted(property.name));
        properties.push_back(std::move(property));
    }

    ByteReader& source;
    PlyHeader header;
    std::set<std::string> elementNames;  // a header has room for many thousands
    std::vector<std::string_view> words;
    bool hasFormat = false;
};

}  // namespace

std::size_t sizeOf(PlyType type) {
    constexpr std::size_t kSizes[] = {1, 1, 2, 2, 4, 4, 4, 8};
    return kSizes[static_cast<std::size_t>(type)];
}

bool PlyElement::hasLists() const {
    return std::any_of(properties.begin(), properties.end(),
                       [](PlyProperty const& property) { return property.isList; });
}

std::size_t PlyElement::size() const {
    std::size_t size = 0;
    for (PlyProperty const& property : properties)
        size += sizeOf(property.isList ? property.countType : property.type);
    return size;
}

bool isPly(std::span<std::byte const> begin) {
    std::string_view const text(reinterpret_cast<char const*>(begin.data()), begin.size());
    return text.starts_with("ply\n") || text.starts_with("ply\r\n");
}

PlyHeader readPlyHeader(ByteReader& source) {
    return HeaderParser(source).parse();
}

}  // namespace zel::detail
