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

template <class Interface> struct Results;
template <> struct Results<zel::ScalarField> {
    std::vector<float> values;
    std::vector<float3> gradients;
};
template <> struct Results<zel::VectorField> {
    std::vector<float3> values;
    std::vector<float3x3> gradients;
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

/// Evaluates the points of all files. Several ranks take a block of points each, then the next
/// blocks, and write them together: a .npy file by all ranks, other formats by the root.
class Evaluation {
public:
    Evaluation(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop)
        : m_options(options), m_ranks(ranks), m_stop(stop), m_scene(options.scene),
          m_components(std::holds_alternative<zel::VectorPtr>(m_scene.tree()) ? 3 : 1),
          m_progress("points", ranks.showsProgress()) {}

    void run() {
        std::vector<std::size_t> counts;
        for (std::string const& path : m_options.points) counts.push_back(countOf(path));
        if (std::find(counts.begin(), counts.end(), std::size_t{0}) == counts.end())
            for (std::size_t const count : counts) m_all += count;
        if (!m_ranks.isAlone()) begin();
        for (std::string const& path : m_options.points) readFile(path);
        if (m_shared)
            m_shared->commit(headerOf(m_done));
        else if (m_ranks.isRoot())
            writer().commit();
    }

private:
    static constexpr std::uint64_t kChunk = 1 << 16;  ///< points

    /// The file is begun when there are results, so that standard output stays empty if there are
    /// none.
    zel::PointWriter& writer() {
        if (!m_writer) m_writer.emplace(m_options.output, columns(), formatOf(m_options.output));
        return *m_writer;
    }

    std::vector<zel::PointWriter::Column> columns() const {
        std::vector<zel::PointWriter::Column> columns{{"value", m_components}};
        if (m_options.gradient) columns.push_back({"gradient", 3 * m_components});
        return columns;
    }
    /// Numbers of a row of a .npy file.
    std::uint64_t width() const {
        return static_cast<std::uint64_t>(m_components) * (m_options.gradient ? 4 : 1);
    }
    /// As that of a zel::PointWriter.
    std::string headerOf(std::uint64_t count) const {
        return zel::npyHeader(zel::npyRows(count, width()), true);
    }

    /// Standard output, devices and pipes take a table.
    static zel::PointFormat formatOf(std::string const& path) {
        return zel::OutputFile::isDirect(path) ? zel::PointFormat::kCsv : zel::pointFormatOf(path);
    }

    /// Prepares the work of several ranks.
    void begin() {
        constexpr std::uint64_t kMost = 16, kBlocksOfRank = 8;
        auto const all = static_cast<std::uint64_t>(
            m_ranks.gather(std::array{static_cast<double>(m_all)}).front());
        m_chunksOfBlock = all == 0 ? kMost
                                   : std::clamp<std::uint64_t>(
                                         all / kChunk / kBlocksOfRank / m_ranks.size(), 1, kMost);
        if (formatOf(m_options.output) != zel::PointFormat::kNpy) return;
        std::string const header = headerOf(0);
        std::uint64_t size = header.size();
        for (std::string const& path : m_options.points) {
            auto const count = zel::PointReader(path).count();
            if (!count) size = 0;
            if (size > 0) size += *count * width() * sizeof(float);
        }
        m_shared.emplace(m_ranks, m_options.output, header, size);
    }

    void readFile(std::string const& path) {
        zel::PointReader reader(path);
        zel::PointChunk chunk = reader.makeChunk(kChunk);
        Orvane::Object const object = zel::objectOf(chunk);
        zel::Tree tree = m_scene.boundTo(object);
        if (m_options.exact)
            std::visit([](auto& root) { root = zel::withExactGradients(root); }, tree);
        bool const isOfChunk = m_scene.readsProperties(object);
        bool const isMixed = isOfChunk && readsElementIndex(tree);
        std::uint64_t const before = m_done;
        auto const evaluate = [&](auto const& root) {
            std::uint64_t const index = before + chunk.first;
            if (isMixed && index > 0)
                throw std::runtime_error(m_scene.name() +
                                         ": reads columns of the points and a constant array, "
                                         "which takes at most 65536 points");
            // Columns are read by the number in the chunk.
            append(*root, chunk, isOfChunk ? 0 : static_cast<long long>(index));
        };
        std::visit(
            [&](auto const& root) {
                if (m_ranks.isAlone()) {
                    while (reader.read(chunk)) {
                        evaluate(root);
                        write(*root, chunk.points());
                        advance(chunk.count);
                    }
                } else {
                    readBlocks(reader, chunk, *root, [&] { evaluate(root); });
                }
            },
            tree);
    }

    template <class Interface, class Evaluate>
    void readBlocks(zel::PointReader& reader, zel::PointChunk& chunk, Interface const& root,
                    Evaluate const& evaluate) {
        std::uint64_t const block = m_chunksOfBlock * kChunk;
        reader.skip(block * m_ranks.rank());
        for (bool isOver = false; !isOver;) {
            m_positions.clear();
            std::uint64_t count = 0;
            for (; count < block && reader.read(chunk); count += chunk.count) {
                evaluate();
                if (!m_shared)
                    m_positions.insert(m_positions.end(), chunk.points().begin(),
                                       chunk.points().end());
            }
            reader.skip(block * (m_ranks.size() - 1));
            auto const counts = m_ranks.gather(std::array{static_cast<double>(count)});
            isOver = counts.back() < static_cast<double>(block);
            writeBlocks(root, block);
            for (double const points : counts) advance(static_cast<std::uint64_t>(points));
        }
    }

    /// Writes the blocks of all ranks.
    template <class Interface> void writeBlocks(Interface const& root, std::uint64_t block) {
        auto& [values, gradients] = std::get<Results<Interface>>(m_results);
        if (m_shared) {
            auto const rows = rowsOf(values, gradients);
            std::uint64_t const row = m_done + block * m_ranks.rank();
            m_shared->write(headerOf(0).size() + row * width() * sizeof(float),
                            std::as_bytes(std::span(rows)));
            values.clear();
            gradients.clear();
            return;
        }
        if (!m_ranks.isRoot()) {
            m_ranks.send(std::as_bytes(std::span(m_positions)));
            m_ranks.send(std::as_bytes(std::span(values)));
            m_ranks.send(std::as_bytes(std::span(gradients)));
            values.clear();
            gradients.clear();
        }
        if (m_ranks.isRoot()) write(root, m_positions);
        for (std::size_t rank = 1; m_ranks.isRoot() && rank < m_ranks.size(); ++rank) {
            receive(rank, m_positions);
            receive(rank, values);
            receive(rank, gradients);
            write(root, m_positions);
        }
        if (m_done == 0)
            guardFile(m_ranks.fromRoot(m_writer ? m_writer->temporaryPath().string() : ""));
    }
    template <class T> void receive(std::size_t from, std::vector<T>& data) {
        auto const bytes = m_ranks.receive(from);
        data.resize(bytes.size() / sizeof(T));
        std::copy_n(bytes.data(), bytes.size(), std::as_writable_bytes(std::span(data)).data());
    }

    /// Appends the results at the points of a chunk.
    template <class Interface>
    void append(Interface const& field, zel::PointChunk const& chunk, long long first) {
        auto& [values, gradients] = std::get<Results<Interface>>(m_results);
        zel::EvaluateOptions options;
        options.firstIndex = first;
        options.stop = m_stop;
        auto const points = zel::PointView::of(chunk.points());
        values.resize(values.size() + chunk.count);
        auto const newValues = std::span(values).last(chunk.count);
        if (!m_options.gradient) return evaluate(field, points, newValues, options);
        gradients.resize(gradients.size() + chunk.count);
        evaluate(field, points, newValues, std::span(gradients).last(chunk.count), options);
    }

    /// Writes the results in hand.
    template <class Interface>
    void write(Interface const& /*root*/, std::span<float3 const> positions) {
        auto& [values, gradients] = std::get<Results<Interface>>(m_results);
        if (m_options.gradient)
            writer().write(positions, {values, gradients});
        else
            writer().write(positions, {values});
        values.clear();
        gradients.clear();
    }

    void advance(std::uint64_t count) {
        m_done += static_cast<std::size_t>(count);
        m_progress(m_done, m_all);
    }

    EvalOptions const& m_options;
    Ranks& m_ranks;
    std::stop_token m_stop;
    Scene m_scene;
    int m_components;
    std::optional<zel::PointWriter> m_writer;
    std::optional<SharedFile> m_shared;  // of several ranks, for .npy
    std::uint64_t m_chunksOfBlock = 1;
    std::vector<float3> m_positions;
    std::tuple<Results<zel::ScalarField>, Results<zel::VectorField>> m_results;
    Progress m_progress;
    std::size_t m_done = 0, m_all = 0;
};

}  // namespace

void eval(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop) {
    expectFiles(ranks, options.points);
    expectFiles(ranks, std::span(&options.scene.scene, 1));
    if (options.exact && !options.gradient) throw std::runtime_error("--exact needs --gradient");
    std::vector<std::string> inputs = options.points;
    inputs.push_back(options.scene.scene);
    expectOneInput(inputs);
    Evaluation(options, ranks, stop).run();
}

}  // namespace command
