#include <algorithm>
#include <charconv>
#include <cstdint>
#include <string_view>
#include <utility>

#include "error.h"
#include "number_text.h"
#include "numbers.h"
#include "ply_header.h"
#include "point_format.h"

namespace zel::detail {

namespace {

float loadNumber(std::byte const* bytes, PlyType type, bool isBigEndian) {
    auto const integer = [&]<class Signed, class Unsigned>(Signed, Unsigned) {
        return static_cast<float>(static_cast<Signed>(loadInteger<Unsigned>(bytes, isBigEndian)));
    };
    switch (type) {
    case PlyType::kInt8:
        return integer(std::int8_t{}, std::uint8_t{});
    case PlyType::kUint8:
        return integer(std::uint8_t{}, std::uint8_t{});
    case PlyType::kInt16:
        return integer(std::int16_t{}, std::uint16_t{});
    case PlyType::kUint16:
        return integer(std::uint16_t{}, std::uint16_t{});
    case PlyType::kInt32:
        return integer(std::int32_t{}, std::uint32_t{});
    case PlyType::kUint32:
        return integer(std::uint32_t{}, std::uint32_t{});
    case PlyType::kFloat:
        return loadFloat(bytes, isBigEndian);
    case PlyType::kDouble:
        return nearestFloat(loadDouble(bytes, isBigEndian));
    }
    return 0;
}

/// The vertices of a .ply file. A column is a property that is no list.
class PlyReader : public RowReader {
public:
    explicit PlyReader(ByteReader source_)
        : source(std::move(source_)), header(readPlyHeader(source)),
          isBigEndian(header.encoding == PlyEncoding::kBigEndian) {
        auto const found =
            std::find_if(header.elements.begin(), header.elements.end(),
                         [](PlyElement const& element) { return element.name == "vertex"; });
        if (found == header.elements.end())
            source.source().fail("header", "there is no element vertex");
        vertices = static_cast<std::size_t>(found - header.elements.begin());
        count = vertex().count;
        for (PlyProperty const& property : vertex().properties)
            if (!property.isList) columns.push_back(property.name);
        if (header.encoding != PlyEncoding::kAscii && !vertex().hasLists())
            stride = vertex().size();
        expectRoom();
    }

    std::size_t read(std::span<ColumnTarget const> targets, std::size_t most) override {
        if (!std::exchange(isPlaced, true))
            for (std::size_t i = 0; i < vertices; ++i) skip(header.elements[i]);
        most = static_cast<std::size_t>(std::min<std::uint64_t>(most, *count - done));
        for (std::size_t row = 0; row < most; ++row, ++done) {
            if (header.encoding == PlyEncoding::kAscii)
                readLine(targets, row);
            else if (stride > 0)
                readBlock(targets, row);
            else
                readWithLists(vertex(), targets, row);
        }
        return most;
    }

private:
    PlyElement const& vertex() const { return header.elements[vertices]; }

    [[noreturn]] void failAtEnd(PlyElement const& element) const {
        source.source().fail("byte " + std::to_string(source.offset()),
                             "the file ends before the " + std::to_string(element.count) +
                                 " elements " + detail::quoted(element.name) +
                                 " that its header claims");
    }

    /// Compares the claims of the header with the size of the file, if it has one.
    void expectRoom() {
        for (std::size_t i = 0; i <= vertices; ++i) {
            PlyElement const& element = header.elements[i];
            // The least that an element takes: in text, a digit and a line end.
            std::size_t const least = header.encoding == PlyEncoding::kAscii
                                          ? 2 * element.properties.size()
                                          : element.size();
            std::optional<std::uint64_t> const size = source.source().size();
            // The last line may lack its end.
            if (size && least > 0 && element.count > (*size - source.offset() + 1) / least)
                source.source().fail(
                    "header", "the file is too short for the " + std::to_string(element.count) +
                                  " elements " + detail::quoted(element.name) + " that it claims");
        }
    }

    /// Passes over all elements of a kind.
    void skip(PlyElement const& element) {
        if (element.properties.empty()) return;
        if (header.encoding != PlyEncoding::kAscii && !element.hasLists()) {
            std::uint64_t const size = element.size();
            if (element.count > ~std::uint64_t{0} / size || !source.skip(element.count * size))
                failAtEnd(element);
            return;
        }
        for (std::uint64_t i = 0; i < element.count; ++i) {
            if (header.encoding == PlyEncoding::kAscii)
                nextLine(element);
            else
                readWithLists(element, {}, 0);
        }
    }

    std::string_view nextLine(PlyElement const& element) {
        std::string_view line;
        do {
            if (!source.nextLine(line)) failAtEnd(element);
        } while (line.find_first_not_of(" \t") == std::string_view::npos);
        return line;
    }

    void readLine(std::span<ColumnTarget const> targets, std::size_t row) {
        std::string_view rest = nextLine(vertex());
        std::size_t column = 0;
        for (PlyProperty const& property : vertex().properties) {
            std::string_view const word = nextWord(rest, property);
            float value = 0;
            if (!property.isList) {
                if (char const* const problem = parseFloat(word, value))
                    failAtWord(property, problem, word);
                targets[column++].set(row, value);
                continue;
            }
            std::uint32_t length = 0;
            auto const [end, error] =
                std::from_chars(word.data(), word.data() + word.size(), length);
            if (error != std::errc() || end != word.data() + word.size())
                failAtWord(property, "wanted the length of a list", word);
            for (; length > 0; --length) nextWord(rest, property);
        }
        if (rest.find_first_not_of(" \t") != std::string_view::npos)
            source.failAtLine("there are more numbers than properties");
    }

    std::string_view nextWord(std::string_view& rest, PlyProperty const& property) {
        rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
        std::string_view const word = rest.substr(0, rest.find_first_of(" \t"));
        if (word.empty()) failAtWord(property, "wanted a number", {});
        rest.remove_prefix(word.size());
        return word;
    }

    [[noreturn]] void failAtWord(PlyProperty const& property, char const* problem,
                                 std::string_view word) {
        source.source().fail(
            "line " + std::to_string(source.line()) + ", property " + detail::quoted(property.name),
            std::string(problem) + ", found " + (word.empty() ? "nothing" : detail::quoted(word)));
    }

    void readBlock(std::span<ColumnTarget const> targets, std::size_t row) {
        if (!source.fill(stride)) failAtEnd(vertex());
        std::byte const* bytes = source.buffered().data();
        for (std::size_t i = 0; i < columns.size(); ++i) {
            PlyType const type = vertex().properties[i].type;
            if (targets[i].first != nullptr)
                targets[i].set(row, loadNumber(bytes, type, isBigEndian));
            bytes += sizeOf(type);
        }
        source.consume(stride);
    }

    void readWithLists(PlyElement const& element, std::span<ColumnTarget const> targets,
                       std::size_t row) {
        std::size_t column = 0;
        for (PlyProperty const& property : element.properties) {
            PlyType const type = property.isList ? property.countType : property.type;
            std::size_t const size = sizeOf(type);
            if (!source.fill(size)) failAtEnd(element);
            std::byte const* const bytes = source.buffered().data();
            if (property.isList) {
                std::uint64_t const length = lengthOf(bytes, property);
                source.consume(size);
                if (!source.skip(length * sizeOf(property.type))) failAtEnd(element);
            } else {
                if (!targets.empty())
                    targets[column++].set(row, loadNumber(bytes, type, isBigEndian));
                source.consume(size);
            }
        }
    }

    std::uint64_t lengthOf(std::byte const* bytes, PlyProperty const& property) const {
        bool const isSigned = property.countType == PlyType::kInt8 ||
                              property.countType == PlyType::kInt16 ||
                              property.countType == PlyType::kInt32;
        std::size_t const size = sizeOf(property.countType);
        std::uint64_t const value = size == 1   ? std::to_integer<std::uint64_t>(bytes[0])
                                    : size == 2 ? loadInteger<std::uint16_t>(bytes, isBigEndian)
                                                : loadInteger<std::uint32_t>(bytes, isBigEndian);
        if (isSigned && value >> (8 * size - 1) != 0)
            source.failAtByte("the length of the list " + detail::quoted(property.name) +
                              " is negative");
        return value;
    }

    ByteReader source;
    PlyHeader header;
    bool isBigEndian;
    std::size_t vertices = 0;  // the number of the element vertex
    std::size_t stride = 0;    // the bytes of a vertex in a binary file, if it has no lists
    bool isPlaced = false;     // whether the elements before the vertices are passed
    std::uint64_t done = 0;
};

}  // namespace

std::unique_ptr<RowReader> readPly(ByteReader source) {
    return std::make_unique<PlyReader>(std::move(source));
}

}  // namespace zel::detail
