#include <algorithm>
#include <bit>
#include <set>
#include <stdexcept>
#include <utility>

#include "npy.h"
#include "number_text.h"
#include "output_file.h"
#include "points.h"

namespace zel {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

static_assert(sizeof(float3) == 3 * sizeof(float) && sizeof(float3x3) == 9 * sizeof(float));

namespace {

void expectName(std::string const& name) {
    bool const isPlain =
        name.find_first_of(" ,;\"'\x7F") == std::string::npos &&
        std::none_of(name.begin(), name.end(), [](char c) { return 0 <= c && c < ' '; });
    if (name.empty() || !isPlain || name.starts_with('#'))
        throw std::invalid_argument("zel::PointWriter: a column cannot be named \"" + name + "\"");
}

/// The names of the columns of a file: a name for each component.
std::vector<std::string> componentNames(std::vector<PointWriter::Column> const& columns) {
    std::vector<std::string> names{"x", "y", "z"};
    for (PointWriter::Column const& column : columns) {
        expectName(column.name);
        constexpr std::string_view kAxes = "xyz";
        if (column.components == 1) {
            names.push_back(column.name);
        } else if (column.components == 3) {
            for (char const c : kAxes) names.push_back(column.name + '_' + c);
        } else if (column.components == 9) {
            for (char const r : kAxes)
                for (char const c : kAxes) names.push_back(column.name + '_' + r + c);
        } else {
            throw std::invalid_argument(
                "zel::PointWriter: a column has 1, 3 or 9 components, not " +
                std::to_string(column.components));
        }
    }
    std::set<std::string_view> known;
    for (std::string const& name : names)
        if (!known.insert(name).second)
            throw std::invalid_argument("zel::PointWriter: there are two columns \"" + name + "\"");
    return names;
}

/// The header of a .ply file: as long for any count of points.
std::string plyHeader(std::vector<std::string> const& names, std::uint64_t count) {
    std::string const digits = std::to_string(count);
    std::string header = std::string("ply\nformat binary_little_endian 1.0\n") +
                         // Takes the room that the digits leave.
                         "comment" +
                         std::string(detail::kMostCountDigits - digits.size() + 1, ' ') +
                         "points\nelement vertex " + digits + '\n';
    for (std::string const& name : names) header += "property float " + name + '\n';
    return header + "end_header\n";
}

}  // namespace

struct PointWriter::State {
    State(std::filesystem::path const& path, std::vector<Column> columns_, PointFormat format_)
        : columns(std::move(columns_)), format(format_), names(componentNames(columns)) {
        if (format == PointFormat::kNpy) {
            npy.emplace(path, npyRows(NpyWriter::kGrows, names.size() - 3));
            return;
        }
        file.emplace(path);
        if (format == PointFormat::kCsv) {
            std::string line;
            for (std::string const& name : names) line += (line.empty() ? "" : ",") + name;
            file->write(line + '\n');
        } else {
            if (file->isDirect())
                throw FileError(file->name(), {}, "a .ply file cannot be written to a pipe");
            file->write(plyHeader(names, 0));
        }
    }

    void write(std::span<float3 const> positions, std::span<PointData const> data) {
        bool matches = data.size() == columns.size();
        for (std::size_t i = 0; matches && i < data.size(); ++i)
            matches =
                data[i].components == columns[i].components && data[i].count == positions.size();
        if (!matches)
            throw std::invalid_argument("zel::PointWriter: the columns are not those of the "
                                        "constructor, or differ in length from the positions");
        constexpr std::size_t kRows = 1 << 10;
        for (std::size_t first = 0; first < positions.size(); first += kRows) {
            std::size_t const rows = std::min(kRows, positions.size() - first);
            gather(positions.subspan(first, rows), data, first);
            if (format == PointFormat::kNpy)
                npy->write(block);
            else if (format == PointFormat::kCsv)
                writeText();
            else
                writeBinary();
        }
        count += positions.size();
    }

    /// Puts rows of all components in the order of the file to the block.
    void gather(std::span<float3 const> positions, std::span<PointData const> data,
                std::size_t first) {
        std::size_t const skipped = format == PointFormat::kNpy ? 3 : 0;
        std::size_t const width = names.size() - skipped;
        block.resize(positions.size() * width);
        for (std::size_t row = 0; row < positions.size(); ++row) {
            float* to = block.data() + row * width;
            if (skipped == 0)
                for (int c = 0; c < 3; ++c) *to++ = positions[row][c];
            for (PointData const& column : data) {
                auto const components = static_cast<std::size_t>(column.components);
                auto const* const from = static_cast<float const*>(column.first);
                to = std::copy_n(from + (first + row) * components, components, to);
            }
        }
    }

    void writeText() {
        text.resize(block.size() * (detail::kMostFloatDigits + 1));
        char* to = text.data();
        std::size_t column = 0;
        for (float const number : block) {
            to = detail::formatFloat(to, number);
            column = column + 1 == names.size() ? 0 : column + 1;
            *to++ = column == 0 ? '\n' : ',';
        }
        file->write(std::string_view(text.data(), static_cast<std::size_t>(to - text.data())));
    }

    void writeBinary() {
        if constexpr (std::endian::native == std::endian::big)
            for (float& number : block) {
                auto bits = std::bit_cast<std::uint32_t>(number);
                number = std::bit_cast<float>(__builtin_bswap32(bits));
            }
        file->write(std::as_bytes(std::span(block)));
    }

    void commit() {
        if (format == PointFormat::kNpy) return npy->commit();
        if (format == PointFormat::kPly) {
            std::string const header = plyHeader(names, count);
            file->rewriteBegin(std::as_bytes(std::span(header)));
        }
        file->commit();
    }

    std::vector<Column> columns;
    PointFormat format;
    std::vector<std::string> names;
    std::optional<OutputFile> file;
    std::optional<NpyWriter> npy;
    std::uint64_t count = 0;
    std::vector<float> block;
    std::vector<char> text;
};

PointWriter::PointWriter(std::filesystem::path const& path, std::vector<Column> columns)
    : PointWriter(path, std::move(columns), pointFormatOf(path)) {}
PointWriter::PointWriter(std::filesystem::path const& path, std::vector<Column> columns,
                         PointFormat format)
    : m_state(std::make_unique<State>(path, std::move(columns), format)) {}
PointWriter::PointWriter(PointWriter&&) noexcept = default;
PointWriter& PointWriter::operator=(PointWriter&&) noexcept = default;
PointWriter::~PointWriter() = default;

void PointWriter::write(std::span<float3 const> positions, std::span<PointData const> columns) {
    m_state->write(positions, columns);
}
void PointWriter::write(std::span<float3 const> positions,
                        std::initializer_list<PointData> columns) {
    m_state->write(positions, {columns.begin(), columns.size()});
}
void PointWriter::commit() {
    m_state->commit();
}
std::filesystem::path PointWriter::temporaryPath() const {
    auto const* const output = m_state->file ? &*m_state->file : nullptr;
    return output == nullptr || output->isDirect() ? std::filesystem::path()
                                                   : output->temporaryPath();
}

}  // namespace zel
