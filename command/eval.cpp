#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>

#include <zel/field/evaluate.h>
#include <zel/node/exact_gradients.h>
#include <zel_exchange/npy.h>
#include <zel_exchange/output_file.h>
#include <zel_exchange/points.h>

#include "commands.h"
#include "scene.h"
#include "session.h"

namespace command {

namespace {

using Orvane::Math::float3;
using Orvane::Math::float3x3;

/// Points and the results at them. Columns that nobody writes are empty.
template <class Interface> struct Block;
template <> struct Block<zel::ScalarField> {
    std::vector<float3> positions{};
    std::vector<float> values{};
    std::vector<float3> gradients{};
};
template <> struct Block<zel::VectorField> {
    std::vector<float3> positions{};
    std::vector<float3> values{};
    std::vector<float3x3> gradients{};
};

/// How many points a file has: of a table an estimate, by the length of its first lines. 0 if that
/// is not known.
std::size_t countOf(std::string const& path) {
    std::error_code error;
    if (path == "-" || !std::filesystem::is_regular_file(path, error)) return 0;
    if (auto const count = zel::PointReader(path).count()) return static_cast<std::size_t>(*count);
    std::string text(1 << 16, '\0');
    std::ifstream stream(path, std::ios::binary);
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    auto const size = static_cast<std::size_t>(stream.gcount());
    auto const lines = std::count(text.begin(), text.begin() + stream.gcount(), '\n');
    auto const whole = std::filesystem::file_size(path, error);
    if (lines == 0 || error) return 0;
    double const length = static_cast<double>(size) / static_cast<double>(lines);
    return static_cast<std::size_t>(static_cast<double>(whole) / length);
}

/// The numbers of a row one after the other: those of the value, then those of the gradient.
template <class Value, class Gradient>
std::vector<float> rowsOf(std::vector<Value> const& values,
                          std::vector<Gradient> const& gradients) {
    if (values.empty()) return {};
    auto const* const value = reinterpret_cast<float const*>(values.data());
    auto const* const gradient = reinterpret_cast<float const*>(gradients.data());
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a value may be a float
    constexpr std::size_t kOfValue = sizeof(Value) / sizeof(float);
    std::size_t const ofGradient = gradients.empty() ? 0 : sizeof(Gradient) / sizeof(float);
    std::vector<float> rows(values.size() * (kOfValue + ofGradient));
    float* to = rows.data();
    for (std::size_t i = 0; i < values.size(); ++i) {
        to = std::copy_n(value + i * kOfValue, kOfValue, to);
        to = std::copy_n(gradient + i * ofGradient, ofGradient, to);
    }
    return rows;
}

/// What the files of results have for each point.
struct Columns {
    int components;  ///< of a value
    bool hasGradient;

    std::vector<zel::PointWriter::Column> list() const {
        std::vector<zel::PointWriter::Column> columns{{"value", components}};
        if (hasGradient) columns.push_back({"gradient", 3 * components});
        return columns;
    }
    /// Numbers of a row of a .npy file.
    std::uint64_t width() const {
        return static_cast<std::uint64_t>(components) * (hasGradient ? 4 : 1);
    }
    /// The header of a .npy file, as that of a zel::PointWriter.
    std::string header(std::uint64_t rows) const {
        return zel::npyHeader(zel::npyRows(rows, width()), true);
    }
};

/// Standard output, devices and pipes take a table.
zel::PointFormat formatOf(std::string const& path) {
    return zel::OutputFile::isDirect(path) ? zel::PointFormat::kCsv : zel::pointFormatOf(path);
}

/// The points of one file, in chunks, and the results at them.
template <class Interface> class Source {
public:
    static constexpr std::uint64_t kChunk = 1 << 16;  ///< points

    /// `before` is the number of points in the files before this one. Keeps references to the scene
    /// and the options.
    Source(std::string const& path, Scene const& scene, EvalOptions const& options,
           std::uint64_t before, std::stop_token const& stop)
        : m_scene(scene), m_options(options), m_before(before), m_stop(stop), m_reader(path),
          m_chunk(m_reader.makeChunk(kChunk)) {
        Orvane::Object const object = zel::objectOf(m_chunk);
        zel::Tree tree = scene.boundTo(object);
        auto& root = std::get<Quern::Ptr<Interface>>(tree);
        if (options.exact) root = zel::withExactGradients(root);
        m_field = root;
        m_readsColumns = scene.readsProperties(object);
        m_readsBoth = m_readsColumns && readsElementIndex(tree);
    }

    /// Appends the next chunk to a block, and returns its points; none at the end. Positions are
    /// left out unless they are wanted.
    std::uint64_t read(Block<Interface>& block, bool wantsPositions) {
        if (!m_reader.read(m_chunk)) return 0;
        std::uint64_t const index = m_before + m_chunk.first;
        if (m_readsBoth && index > 0)
            throw std::runtime_error(m_scene.name() +
                                     ": reads columns of the points and a constant array, which "
                                     "takes at most 65536 points");
        zel::EvaluateOptions how;
        // Columns are read by the number in the chunk.
        how.firstIndex = m_readsColumns ? 0 : static_cast<long long>(index);
        how.stop = m_stop;
        auto const points = m_chunk.points();
        if (wantsPositions)
            block.positions.insert(block.positions.end(), points.begin(), points.end());
        auto const grow = [&](auto& column) {
            column.resize(column.size() + m_chunk.count);
            return std::span(column).last(m_chunk.count);
        };
        if (m_options.gradient)
            evaluate(*m_field, zel::PointView::of(points), grow(block.values),
                     grow(block.gradients), how);
        else
            evaluate(*m_field, zel::PointView::of(points), grow(block.values), how);
        return m_chunk.count;
    }
    void skip(std::uint64_t points) { m_reader.skip(points); }

private:
    Scene const& m_scene;
    EvalOptions const& m_options;
    std::uint64_t m_before;
    std::stop_token m_stop;
    zel::PointReader m_reader;
    zel::PointChunk m_chunk;
    Quern::Ptr<Interface> m_field;
    bool m_readsColumns = false;
    bool m_readsBoth = false;  ///< columns, and the numbers of points as well
};

/// Writes blocks to a file of any format in their order: those of all ranks, which the root
/// receives.
template <class Interface> class RootWriter {
public:
    RootWriter(EvalOptions const& options, Columns const& columns, Ranks& ranks)
        : m_options(options), m_columns(columns), m_ranks(ranks) {}

    static constexpr bool kWantsPositions = true;

    /// Collective: writes a block of each rank.
    void write(Block<Interface>& block, std::uint64_t /*row*/) {
        if (!m_ranks.isRoot()) {
            forEachColumn(
                block, [&](auto const& column) { m_ranks.send(std::as_bytes(std::span(column))); });
        } else {
            append(block);
            for (std::size_t rank = 1; rank < m_ranks.size(); ++rank) {
                forEachColumn(block, [&](auto& column) { receive(rank, column); });
                append(block);
            }
        }
        if (!m_isGuarded && !m_ranks.isAlone())
            guardFile(m_ranks.fromRoot(m_writer ? m_writer->temporaryPath().string() : ""));
        m_isGuarded = true;
    }
    void commit(std::uint64_t /*rows*/) {
        if (m_ranks.isRoot()) writer().commit();
    }

private:
    /// The file is begun when there are results, so that standard output stays empty if there are
    /// none.
    zel::PointWriter& writer() {
        if (!m_writer)
            m_writer.emplace(m_options.output, m_columns.list(), formatOf(m_options.output));
        return *m_writer;
    }
    void append(Block<Interface> const& block) {
        if (m_columns.hasGradient)
            writer().write(block.positions, {block.values, block.gradients});
        else
            writer().write(block.positions, {block.values});
    }
    template <class Some, class Use> static void forEachColumn(Some& block, Use const& use) {
        use(block.positions);
        use(block.values);
        use(block.gradients);
    }
    template <class T> void receive(std::size_t from, std::vector<T>& column) {
        m_ranks.receive(from, m_received);
        column.resize(m_received.size() / sizeof(T));
        std::copy_n(m_received.data(), m_received.size(),
                    std::as_writable_bytes(std::span(column)).data());
    }

    EvalOptions const& m_options;
    Columns m_columns;
    Ranks& m_ranks;
    std::vector<std::byte> m_received{};
    std::optional<zel::PointWriter> m_writer{};
    bool m_isGuarded = false;  ///< whether the ranks know the file
};

/// Writes blocks to a .npy file, each rank its own.
template <class Interface> class SharedWriter {
public:
    SharedWriter(EvalOptions const& options, Columns const& columns, Ranks& ranks)
        : m_columns(columns),
          m_file(ranks, options.output, columns.header(0), sizeOf(options.points, columns)) {}

    static constexpr bool kWantsPositions = false;

    /// Collective: writes a block of each rank. `row` is the place of this rank's block.
    void write(Block<Interface> const& block, std::uint64_t row) {
        auto const rows = rowsOf(block.values, block.gradients);
        m_file.write(m_columns.header(0).size() + row * m_columns.width() * sizeof(float),
                     std::as_bytes(std::span(rows)));
    }
    void commit(std::uint64_t rows) { m_file.commit(m_columns.header(rows)); }

private:
    /// The bytes of the file, or 0 if the number of points is not known.
    static std::uint64_t sizeOf(std::vector<std::string> const& points, Columns const& columns) {
        std::uint64_t rows = 0;
        for (std::string const& path : points) {
            auto const count = zel::PointReader(path).count();
            if (!count) return 0;
            rows += *count;
        }
        return columns.header(0).size() + rows * columns.width() * sizeof(float);
    }

    Columns m_columns;
    SharedFile m_file;
};

/// How many points all files have; 0 if countOf() does not know it of one.
std::uint64_t countAll(std::vector<std::string> const& files) {
    std::uint64_t all = 0;
    bool isKnown = true;
    for (std::string const& path : files) {
        std::size_t const count = countOf(path);
        isKnown = isKnown && count > 0;
        all += count;
    }
    return isKnown ? all : 0;
}

/// How many chunks of points a rank evaluates before the results of all ranks are written.
std::uint64_t chunksOfBlock(std::uint64_t all, std::uint64_t chunk, Ranks& ranks) {
    if (ranks.isAlone()) return 1;
    constexpr std::uint64_t kMost = 16, kBlocksOfRank = 8;
    // The root's count, since estimates might differ.
    all = static_cast<std::uint64_t>(ranks.gather(std::array{static_cast<double>(all)}).front());
    if (all == 0) return kMost;
    return std::clamp<std::uint64_t>(all / chunk / kBlocksOfRank / ranks.size(), 1, kMost);
}

/// Evaluates the points of all files. Each rank takes a block of points, then the next block that
/// no other has, and after each round the blocks are written together.
template <class Interface, class Writer>
void evaluateFiles(EvalOptions const& options, Scene const& scene, Columns const& columns,
                   Ranks& ranks, std::stop_token const& stop) {
    Progress progress("points", ranks.showsProgress());
    std::uint64_t const all = countAll(options.points);
    std::uint64_t const block =
        chunksOfBlock(all, Source<Interface>::kChunk, ranks) * Source<Interface>::kChunk;
    Writer writer(options, columns, ranks);
    Block<Interface> results;
    std::uint64_t done = 0;
    for (std::string const& path : options.points) {
        Source<Interface> source(path, scene, options, done, stop);
        source.skip(block * ranks.rank());
        for (bool isOver = false; !isOver;) {
            results.positions.clear();
            results.values.clear();
            results.gradients.clear();
            std::uint64_t count = 0;
            while (count < block) {
                std::uint64_t const more = source.read(results, Writer::kWantsPositions);
                if (more == 0) break;
                count += more;
            }
            source.skip(block * (ranks.size() - 1));
            auto const counts = ranks.gather(std::array{static_cast<double>(count)});
            isOver = counts.back() < static_cast<double>(block);
            if (counts.front() > 0) writer.write(results, done + block * ranks.rank());
            for (double const points : counts) done += static_cast<std::uint64_t>(points);
            progress(static_cast<std::size_t>(done), static_cast<std::size_t>(all));
        }
    }
    writer.commit(done);
}

template <class Interface>
void evaluateScene(EvalOptions const& options, Scene const& scene, Ranks& ranks,
                   std::stop_token const& stop) {
    Columns const columns{std::is_same_v<Interface, zel::VectorField> ? 3 : 1, options.gradient};
    if (!ranks.isAlone() && formatOf(options.output) == zel::PointFormat::kNpy)
        evaluateFiles<Interface, SharedWriter<Interface>>(options, scene, columns, ranks, stop);
    else
        evaluateFiles<Interface, RootWriter<Interface>>(options, scene, columns, ranks, stop);
}

}  // namespace

void eval(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop) {
    expectFiles(ranks, options.points);
    expectFiles(ranks, std::span(&options.scene.scene, 1));
    if (options.exact && !options.gradient) throw std::runtime_error("--exact needs --gradient");
    std::vector<std::string> inputs = options.points;
    inputs.push_back(options.scene.scene);
    expectOneInput(inputs);
    Scene const scene(options.scene);
    if (std::holds_alternative<zel::ScalarPtr>(scene.tree()))
        evaluateScene<zel::ScalarField>(options, scene, ranks, stop);
    else
        evaluateScene<zel::VectorField>(options, scene, ranks, stop);
}

}  // namespace command
