#include <algorithm>
#include <array>
#include <set>
#include <stdexcept>
#include <utility>

#include "column_names.h"
#include "error.h"
#include "npy.h"
#include "npy_header.h"
#include "ply_header.h"
#include "point_format.h"
#include "points.h"
#include "suffix.h"
#include "zel_platform/orvane_geometry/geo_property.h"

namespace zel {

using Orvane::Math::float3;

namespace {

/// The positions of a .npy file.
class NpyReader : public detail::RowReader {
public:
    explicit NpyReader(NpyArray array_, std::string const& name) : array(std::move(array_)) {
        if (!array.isPoints())
            throw FileError(name, "header",
                            "the shape is " + detail::shapeText(array.layout().shape) +
                                "; positions have the shape (n, 3)");
        columns = {"x", "y", "z"};
        count = array.size();
    }

    std::size_t read(std::span<detail::ColumnTarget const> targets, std::size_t most) override {
        most = static_cast<std::size_t>(std::min<std::uint64_t>(most, *count - done));
        // The targets are the members of float3.
        array.readPoints(done, {reinterpret_cast<float3*>(targets[0].first), most});
        done += most;
        return most;
    }
    std::size_t skipRows(std::size_t most) override {
        most = static_cast<std::size_t>(std::min<std::uint64_t>(most, *count - done));
        done += most;
        return most;
    }

private:
    NpyArray array;
    std::uint64_t done = 0;
};

}  // namespace

PointFormat pointFormatOf(std::filesystem::path const& path) {
    std::string const suffix = detail::lowerSuffix(path);
    if (suffix == ".npy") return PointFormat::kNpy;
    if (suffix == ".csv") return PointFormat::kCsv;
    if (suffix == ".ply") return PointFormat::kPly;
    throw FileError(path.string(), {}, "the suffix is none of .npy, .csv and .ply");
}

struct PointReader::State {
    State(std::unique_ptr<detail::RowReader> rows_, std::string const& name)
        : rows(std::move(rows_)) {
        auto const& columns = rows->columns;
        position = detail::positionColumns(columns);
        for (std::size_t c = 0; c < 3; ++c)
            if (position[c] == columns.size())
                throw FileError(name, "header",
                                std::string("there is no column ") + "xyz"[c] + " among " +
                                    list(columns));
        std::set<std::string> names;
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (columns[i].empty()) continue;  // such as the one behind a last comma
            if (!names.insert(columns[i]).second)
                throw FileError(name, "header",
                                "there are two columns " + detail::quoted(columns[i]));
            if (std::find(position.begin(), position.end(), i) != position.end()) continue;
            if (columns[i].starts_with("Orvane::") || columns[i].find('\0') != std::string::npos)
                throw FileError(name, "header",
                                "a column cannot be named " + detail::quoted(columns[i]));
            scalars.push_back(i);
        }
        vectors = detail::vectorColumns(columns);
    }

    static std::string list(std::vector<std::string> const& names) {
        constexpr std::size_t kMost = 5;
        std::string text;
        for (std::size_t i = 0; i < std::min(names.size(), kMost); ++i)
            text += (i > 0 ? ", " : "") + detail::quoted(names[i]);
        return text + (names.size() > kMost ? ", ..." : "");
    }

    std::unique_ptr<detail::RowReader> rows;
    std::array<std::size_t, 3> position;
    std::vector<std::size_t> scalars;
    std::vector<detail::VectorColumns> vectors;
    std::uint64_t done = 0;
};

namespace {

/// Chooses the reader by the content, which must be as the suffix says if that is .npy or .ply.
std::unique_ptr<detail::RowReader> rowsOf(detail::ByteSource source, std::string const& suffix,
                                          std::filesystem::path const* path) {
    detail::ByteReader reader(std::move(source));
    reader.fill(6);
    bool const isNpy = detail::isNpy(reader.buffered());
    bool const isPly = detail::isPly(reader.buffered());
    detail::ByteSource const& opened = reader.source();
    if ((suffix == ".npy" && !isNpy) || (suffix == ".ply" && !isPly))
        opened.fail("byte 0", "this is no " + suffix + " file");
    if (isPly) return detail::readPly(std::move(reader));
    if (!isNpy) return detail::readTable(std::move(reader));
    if (!opened.size()) opened.fail({}, "a .npy file must be a regular file");
    std::string const name = opened.name();
    if (path == nullptr)
        return std::make_unique<NpyReader>(NpyArray({opened.memory(), *opened.size()}, name), name);
    return std::make_unique<NpyReader>(NpyArray(*path), name);
}

template <class T> Quern::Ptr<Quern::Array<T>> makeArray(std::size_t size) {
    return Quern::makePtr<Quern::Array<T>>(static_cast<long long>(size));
}

/// Whether a chunk has so many arrays of both kinds, all of one length.
bool isOurs(PointChunk const& chunk, std::size_t scalars, std::size_t vectors) {
    if (!chunk.positions || chunk.properties.size() != scalars + vectors) return false;
    long long const size = chunk.positions->size();
    for (std::size_t i = 0; i < chunk.properties.size(); ++i) {
        PointChunk::Property const& property = chunk.properties[i];
        bool const fits = i < scalars ? property.scalars && property.scalars->size() == size
                                      : property.vectors && property.vectors->size() == size;
        if (!fits) return false;
    }
    return size > 0;
}

}  // namespace

PointReader::PointReader(std::filesystem::path const& path) {
    detail::ByteSource source(path);
    std::string const name = source.name();
    m_state =
        std::make_unique<State>(rowsOf(std::move(source), detail::lowerSuffix(path), &path), name);
}
PointReader::PointReader(std::span<std::byte const> memory, std::string const& name) {
    detail::ByteSource source(memory, name);
    m_state = std::make_unique<State>(rowsOf(std::move(source), {}, nullptr), name);
}
PointReader::PointReader(PointReader&&) noexcept = default;
PointReader& PointReader::operator=(PointReader&&) noexcept = default;
PointReader::~PointReader() = default;

std::optional<std::uint64_t> PointReader::count() const {
    return m_state->rows->count;
}

std::vector<std::string> PointReader::propertyNames() const {
    std::vector<std::string> names;
    for (std::size_t const column : m_state->scalars)
        names.push_back(m_state->rows->columns[column]);
    for (detail::VectorColumns const& vector : m_state->vectors) names.push_back(vector.name);
    return names;
}

PointChunk PointReader::makeChunk(std::size_t size) const {
    if (size == 0) throw std::invalid_argument("zel::PointReader: a chunk has room for 1 or more");
    PointChunk chunk;
    chunk.positions = makeArray<float3>(size);
    std::size_t i = 0;
    for (std::string& name : propertyNames()) {
        bool const isScalar = i++ < m_state->scalars.size();
        chunk.properties.push_back({std::move(name), isScalar ? makeArray<float>(size) : nullptr,
                                    isScalar ? nullptr : makeArray<float3>(size)});
    }
    return chunk;
}

bool PointReader::read(PointChunk& chunk) {
    State& state = *m_state;
    std::size_t const scalars = state.scalars.size();
    if (!isOurs(chunk, scalars, state.vectors.size()))
        throw std::invalid_argument("zel::PointReader: the chunk is not of this reader");
    std::vector<detail::ColumnTarget> targets(state.rows->columns.size());
    for (std::size_t c = 0; c < 3; ++c)
        targets[state.position[c]] = {&(*chunk.positions)[0][static_cast<int>(c)], 3};
    for (std::size_t i = 0; i < scalars; ++i)
        targets[state.scalars[i]] = {chunk.properties[i].scalars->data(), 1};
    chunk.count = 0;
    chunk.first = state.done;
    std::size_t const count =
        state.rows->read(targets, static_cast<std::size_t>(chunk.positions->size()));
    for (std::size_t i = 0; i < state.vectors.size(); ++i) {
        auto const& columns = state.vectors[i].columns;
        float const* const x = targets[columns[0]].first;
        float const* const y = targets[columns[1]].first;
        float const* const z = targets[columns[2]].first;
        float3* const vectors = chunk.properties[scalars + i].vectors->data();
        for (std::size_t row = 0; row < count; ++row) vectors[row] = {x[row], y[row], z[row]};
    }
    state.done += count;
    chunk.count = count;
    return count > 0;
}

std::uint64_t PointReader::skip(std::uint64_t count) {
    auto const skipped = m_state->rows->skipRows(static_cast<std::size_t>(count));
    m_state->done += skipped;
    return skipped;
}

Orvane::Object objectOf(PointChunk const& chunk) {
    Orvane::Object object;
    for (PointChunk::Property const& property : chunk.properties) {
        if (property.scalars)
            Orvane::Geometry::setGeoProperty(object, property.name, 0.0F, property.scalars);
        else
            Orvane::Geometry::setGeoProperty(object, property.name, float3{}, property.vectors);
    }
    return object;
}

}  // namespace zel
