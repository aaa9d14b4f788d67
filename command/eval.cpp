#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <unordered_set>

#include <zel/field/evaluate.h>
#include <zel/node/exact_gradients.h>
#include <zel/vector/arithmetic.h>
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

/// Whether a tree has nodes that read the element index without an object.
class IndexFinder final : zel::FieldConstVisitor {
public:
    explicit IndexFinder(zel::Tree const& tree) {
        std::visit([&](auto const& root) { (*this)(*root); }, tree);
        while (!m_open.empty()) {
            zel::Field const* const node = m_open.back();
            m_open.pop_back();
            node->listChildren(*this);
        }
    }
    bool isFound() const { return m_isFound; }

private:
    void operator()(zel::Field const& node) override {
        if (!m_known.insert(&node).second) return;
        m_open.push_back(&node);
        if (dynamic_cast<zel::VectorFieldConstantArray const*>(&node)) m_isFound = true;
    }

    std::unordered_set<zel::Field const*> m_known;
    std::vector<zel::Field const*> m_open;
    bool m_isFound = false;
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

class Evaluation {
public:
    Evaluation(EvalOptions const& options, std::stop_token const& stop)
        : m_options(options), m_stop(stop), m_scene(options.scene),
          m_components(std::holds_alternative<zel::VectorPtr>(m_scene.tree()) ? 3 : 1) {}

    void run() {
        std::vector<std::size_t> counts;
        for (std::string const& path : m_options.points) counts.push_back(countOf(path));
        if (std::find(counts.begin(), counts.end(), std::size_t{0}) == counts.end())
            for (std::size_t const count : counts) m_all += count;
        for (std::string const& path : m_options.points) readFile(path);
        writer().commit();
    }

private:
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

    /// Standard output, devices and pipes take a table.
    static zel::PointFormat formatOf(std::string const& path) {
        struct stat status {};
        if (path == "-" || (stat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)))
            return zel::PointFormat::kCsv;
        return zel::pointFormatOf(path);
    }

    void readFile(std::string const& path) {
        zel::PointReader reader(path);
        zel::PointChunk chunk = reader.makeChunk();
        Orvane::Object const object = zel::objectOf(chunk);
        zel::Tree tree = m_scene.boundTo(object);
        if (m_options.exact)
            std::visit([](auto& root) { root = zel::withExactGradients(root); }, tree);
        bool const isOfChunk = m_scene.readsProperties(object);
        bool const isMixed = isOfChunk && IndexFinder(tree).isFound();
        while (reader.read(chunk)) {
            if (isMixed && m_done > 0)
                throw std::runtime_error(m_scene.name() +
                                         ": reads columns of the points and a constant array, "
                                         "which takes at most 65536 points");
            // Columns are read by the number in the chunk.
            long long const first = isOfChunk ? 0 : static_cast<long long>(m_done);
            std::visit([&](auto const& root) { writeChunk(*root, chunk, first); }, tree);
            m_done += chunk.count;
            m_progress(m_done, m_all);
        }
    }

    template <class Interface>
    void writeChunk(Interface const& field, zel::PointChunk const& chunk, long long first) {
        auto& results = std::get<Results<Interface>>(m_results);
        zel::EvaluateOptions options;
        options.firstIndex = first;
        options.stop = m_stop;
        auto const points = zel::PointView::of(chunk.points());
        results.values.resize(chunk.count);
        if (!m_options.gradient) {
            evaluate(field, points, results.values, options);
            writer().write(chunk.points(), {results.values});
            return;
        }
        results.gradients.resize(chunk.count);
        evaluate(field, points, results.values, results.gradients, options);
        writer().write(chunk.points(), {results.values, results.gradients});
    }

    EvalOptions const& m_options;
    std::stop_token m_stop;
    Scene m_scene;
    int m_components;
    std::optional<zel::PointWriter> m_writer;
    std::tuple<Results<zel::ScalarField>, Results<zel::VectorField>> m_results;
    Progress m_progress{"points"};
    std::size_t m_done = 0, m_all = 0;
};

}  // namespace

void eval(EvalOptions const& options, Ranks& ranks, std::stop_token const& stop) {
    expectFiles(ranks, options.points);
    auto const inputs = std::count(options.points.begin(), options.points.end(), "-") +
                        (options.scene.scene == "-" ? 1 : 0);
    if (inputs > 1) throw std::runtime_error("standard input can be read only once");
    Evaluation(options, stop).run();
}

}  // namespace command
