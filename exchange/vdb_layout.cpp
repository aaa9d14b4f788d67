#include "vdb_layout.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "byte_source.h"
#include "error.h"
#include "number_text.h"

namespace zel::detail {

FileView::FileView(std::filesystem::path const& path) : m_name(path.string()) {
    ByteSource const source(path);
    if (!source.size()) source.fail({}, "must be a regular file, opened by its name");
    auto const size = static_cast<std::size_t>(*source.size());
    if (size == 0) return;
    void* const memory = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, source.descriptor(), 0);
    if (memory == MAP_FAILED)
        source.fail({}, "cannot be read: " + std::generic_category().message(errno));
    m_bytes = {static_cast<char const*>(memory), size};
}

FileView::~FileView() {
    if (!m_bytes.empty()) munmap(const_cast<char*>(m_bytes.data()), m_bytes.size());
}

std::string gridPlace(std::string const& name) {
    return "grid " + detail::quoted(name);
}

std::string channelName(std::string const& gridName) {
    return gridName.empty() ? "unnamed" : gridName;
}

namespace {

constexpr std::int64_t kMagic = 0x56444220;
constexpr std::uint32_t kOldest = 222;  // masks of nodes are compressed from this version on
constexpr std::uint32_t kNewest = 224;
constexpr char kSuffixSeparator = '\x1e';
constexpr std::string_view kHalfSuffix = "_HalfFloat";
constexpr std::size_t kLongestName = 1 << 16;

/// Reads what a file has from a place on.
class Reader {
public:
    Reader(FileView const& file, std::int64_t at, std::int64_t end)
        : m_file(file), m_at(static_cast<std::size_t>(at)), m_end(static_cast<std::size_t>(end)) {}

    std::size_t at() const { return m_at; }

    std::string_view bytes(std::size_t count, char const* what) {
        if (count > m_end - m_at)
            fail(std::string(what) + " of " + std::to_string(count) + " bytes, and " +
                 std::to_string(m_end - m_at) + " are left");
        m_at += count;
        return {m_file.bytes().data() + m_at - count, count};
    }
    template <class T> T number(char const* what) {
        T value;
        std::memcpy(&value, bytes(sizeof value, what).data(), sizeof value);
        return value;
    }
    std::string text(char const* what) {
        auto const size = number<std::uint32_t>(what);
        if (size > kLongestName) fail(std::string(what) + " of " + std::to_string(size) + " bytes");
        return std::string(bytes(size, what));
    }
    VdbMetadata metadata() {
        VdbMetadata entries;
        auto const count = number<std::uint32_t>("the number of metadata");
        for (std::uint32_t i = 0; i < count; ++i) {
            auto name = text("the name of metadata");
            auto type = text("the type of metadata");
            auto const size = number<std::uint32_t>("the size of metadata");
            checkSize(type, size);
            auto const value = bytes(size, "metadata");
            checkLeaves(type, value);
            entries[std::move(name)] = {std::move(type), value};
        }
        return entries;
    }
    /// OpenVDB reads a value of these types by the size of the type.
    void checkSize(std::string const& type, std::uint32_t size) const {
        static std::map<std::string, std::uint32_t> const sizes{
            {"bool", 1},   {"int32", 4},  {"int64", 8},  {"float", 4},
            {"double", 8}, {"vec2i", 8},  {"vec2s", 8},  {"vec2d", 16},
            {"vec3i", 12}, {"vec3s", 12}, {"vec3d", 24}, {"vec4i", 16},
            {"vec4s", 16}, {"vec4d", 32}, {"mat4s", 64}, {"mat4d", 128}};
        auto const found = sizes.find(type);
        if (found != sizes.end() && found->second != size)
            fail("metadata of the type " + type + " of " + std::to_string(size) + " bytes");
    }
    /// OpenVDB takes memory for the number of leaves that this type begins with, and for the
    /// compressed bytes of their masks and of their sizes: 0 if these are not compressed.
    void checkLeaves(std::string const& type, std::string_view value) const {
        constexpr std::size_t kLeaf = 64;  // bytes of a leaf's mask
        if (type != "__delayedload" || value.empty()) return;
        constexpr std::uint32_t kNoSizes = ~0U;
        auto const numberAt = [&](std::size_t at) {
            std::uint32_t read = 0;
            if (at <= value.size())
                std::memcpy(&read, value.data() + at, std::min(value.size() - at, sizeof read));
            return read;
        };
        std::uint32_t const leaves = numberAt(0), masks = numberAt(4);
        if (leaves > m_file.bytes().size() / kLeaf)
            fail("metadata of " + std::to_string(leaves) + " leaves");
        std::uint32_t const sizes = numberAt(8 + std::size_t{masks > 0 ? masks : leaves});
        for (std::uint32_t const size : {masks, sizes == kNoSizes ? 0 : sizes})
            if (size > value.size())
                fail("metadata of " + std::to_string(size) + " bytes in " +
                     std::to_string(value.size()));
        // It would read on behind a value that is too short.
        if (value.size() < std::size_t{12} + (masks > 0 ? masks : leaves))
            fail("metadata of " + std::to_string(value.size()) + " bytes for " +
                 std::to_string(leaves) + " leaves");
    }
    [[noreturn]] void fail(std::string const& message) const {
        throw FileError(m_file.name(), "byte " + std::to_string(m_at), message);
    }

private:
    FileView const& m_file;
    std::size_t m_at, m_end;
};

/// "name", or "name[2]" for the third grid of this name.
std::string callerName(std::string const& uniqueName) {
    auto const at = uniqueName.find(kSuffixSeparator);
    if (at == std::string::npos) return uniqueName;
    std::string name = uniqueName.substr(0, at);
    return name.append("[").append(uniqueName.substr(at + 1)).append("]");
}

/// The type of the values of a tree: "float" of "Tree_float_5_4_3".
std::string valueType(std::string const& tree) {
    auto const first = tree.find('_');
    if (!tree.starts_with("Tree_")) return tree;
    auto const last = tree.find('_', first + 1);
    return tree.substr(first + 1, last - first - 1);
}

std::int64_t checkedPlace(Reader& reader, std::int64_t least, std::int64_t most, char const* what) {
    auto const place = reader.number<std::int64_t>(what);
    if (place < least || place > most)
        reader.fail(std::string(what) + " at byte " + std::to_string(place) + " of " +
                    std::to_string(most));
    return place;
}

/// The bytes of an affine map in a file; 0 of others.
std::int64_t transformSize(std::string const& type) {
    static std::map<std::string, std::int64_t> const sizes{{"AffineMap", 128},
                                                           {"UnitaryMap", 128},
                                                           {"TranslationMap", 24},
                                                           {"ScaleMap", 120},
                                                           {"UniformScaleMap", 120},
                                                           {"ScaleTranslateMap", 144},
                                                           {"UniformScaleTranslateMap", 144}};
    auto const found = sizes.find(type);
    return found == sizes.end() ? 0 : found->second;
}

/// An affine map from its bytes: a matrix for row vectors; or a translation, a scale or both, and
/// then what follows from them.
AffineMap affineMap(std::string const& type, std::string_view bytes) {
    std::array<double, 16> numbers{};
    std::memcpy(numbers.data(), bytes.data(), std::min(bytes.size(), sizeof numbers));
    AffineMap map = kIdentity;
    bool const isMatrix = type == "AffineMap" || type == "UnitaryMap";
    bool const isMoved = type.find("Transl") != type.npos;
    bool const isScaled = type.find("Scale") != type.npos;
    for (std::size_t r = 0; r < 3; ++r) {
        for (std::size_t c = 0; c < 4 && isMatrix; ++c) map[r][c] = numbers[4 * c + r];
        if (isMoved) map[r][3] = numbers[r];
        if (isScaled) map[r][r] = numbers[isMoved ? 3 + r : r];
    }
    return map;
}

template <class T> std::string numbersText(std::string_view bytes) {
    std::string text;
    for (std::size_t at = 0; at + sizeof(T) <= bytes.size(); at += sizeof(T)) {
        T value;
        std::memcpy(&value, bytes.data() + at, sizeof value);
        if (!text.empty()) text += ", ";
        text += numberText(value);
    }
    return text;
}

}  // namespace

std::string VdbEntry::text() const {
    if (type == "string") return std::string(bytes);
    if (type == "bool") return !bytes.empty() && bytes.front() != 0 ? "true" : "false";
    if (type.starts_with("int64")) return numbersText<std::int64_t>(bytes);
    if (type.ends_with("int32") || type.ends_with("2i") || type.ends_with("3i"))
        return numbersText<std::int32_t>(bytes);
    if (type.starts_with("float") || type.ends_with("2s") || type.ends_with("3s"))
        return numbersText<float>(bytes);
    if (type.starts_with("double") || type.ends_with("2d") || type.ends_with("3d"))
        return numbersText<double>(bytes);
    return "(" + type + ")";
}

std::vector<VdbSection> vdbSections(FileView const& file) {
    auto const size = static_cast<std::int64_t>(file.bytes().size());
    Reader header(file, 0, size);
    if (size < 8 || header.number<std::int64_t>("the magic number") != kMagic)
        throw FileError(file.name(), {}, "is not an OpenVDB file");
    auto const version = header.number<std::uint32_t>("the version");
    if (version < kOldest || version > kNewest)
        header.fail("version " + std::to_string(version) + " of the format; versions " +
                    std::to_string(kOldest) + " to " + std::to_string(kNewest) + " can be read");
    header.bytes(8, "the version of the library");
    if (header.number<char>("the mark of offsets") == 0)
        header.fail("the file was written to a stream, without the places of its grids");
    header.bytes(36, "the identifier of the file");
    header.metadata();

    auto const count = header.number<std::int32_t>("the number of grids");
    if (count < 0) header.fail("a number of grids of " + std::to_string(count));
    std::vector<VdbSection> sections;
    auto at = static_cast<std::int64_t>(header.at());
    for (std::int32_t i = 0; i < count; ++i) {
        VdbSection section;
        section.descriptor = at;
        Reader reader(file, at, size);
        section.name = callerName(reader.text("the name of a grid"));
        section.tree = reader.text("the type of a grid");
        section.isHalf = section.tree.ends_with(kHalfSuffix);
        if (section.isHalf) section.tree.resize(section.tree.size() - kHalfSuffix.size());
        section.type = valueType(section.tree);
        section.shares = callerName(reader.text("the name of a grid's tree"));
        auto const least = static_cast<std::int64_t>(reader.at() + 3 * sizeof(std::int64_t));
        section.grid = checkedPlace(reader, least, size, "a grid");
        // OpenVDB writes 0 for a grid that shares the tree of another one.
        checkedPlace(reader, section.shares.empty() ? section.grid : 0, size,
                     "the voxels of a grid");
        section.end = checkedPlace(reader, section.grid, size, "the end of a grid");

        Reader grid(file, section.grid, section.end);
        section.compression = grid.number<std::uint32_t>("the compression");
        section.metadata = grid.metadata();
        section.transform = grid.text("the type of a transform");
        if (auto const bytes = transformSize(section.transform); bytes > 0) {
            section.nodes = static_cast<std::int64_t>(grid.at()) + bytes;
            if (section.nodes <= section.end)
                section.indexToWorld = affineMap(
                    section.transform, grid.bytes(static_cast<std::size_t>(bytes), "a transform"));
        }
        at = section.end;
        sections.push_back(std::move(section));
    }
    return sections;
}

}  // namespace zel::detail
