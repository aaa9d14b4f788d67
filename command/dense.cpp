#include "dense.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <span>

#include <tbb/task_arena.h>
#include <zel/field/evaluate.h>
#include <zel_exchange/npy.h>

#include "commands.h"
#include "session.h"
#include "shares.h"

namespace command {

namespace {

using Orvane::Math::float3;

/// Samples at low + i * voxel along each axis, the last axis fastest.
class Lattice {
public:
    explicit Lattice(GridOptions const& options)
        : m_voxel(options.voxel), m_counts(samplesOf(options)) {
        std::copy_n(options.box.begin(), 3, m_low.begin());
    }

    std::array<std::uint64_t, 3> const& counts() const { return m_counts; }
    /// How many samples there are.
    std::uint64_t size() const { return m_counts[0] * m_counts[1] * m_counts[2]; }

    /// The positions of the samples from `first` on.
    void positions(std::uint64_t first, std::span<float3> positions) const {
        std::uint64_t k = first % m_counts[2];
        std::uint64_t j = first / m_counts[2] % m_counts[1];
        std::uint64_t i = first / m_counts[2] / m_counts[1];
        for (float3& position : positions) {
            position = {at(0, i), at(1, j), at(2, k)};
            if (++k < m_counts[2]) continue;
            k = 0;
            if (++j < m_counts[1]) continue;
            j = 0;
            ++i;
        }
    }

private:
    float at(std::size_t axis, std::uint64_t i) const {
        return static_cast<float>(m_low[axis] + static_cast<double>(i) * m_voxel);
    }

    double m_voxel;
    std::array<double, 3> m_low{};
    std::array<std::uint64_t, 3> m_counts;
};

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Evaluates a field at the samples of a lattice, and writes the values to a file. Each rank has a
/// range of the samples. The ranks work in turns: each evaluates samples from the begin of its
/// range for the same time, then all write; so none waits long for the others, however much their
/// speeds differ. A rank whose range is empty takes a part of another.
template <class Interface, class Value> class DenseWork {
public:
    DenseWork(Interface const& field, VolumeOptions const& options, Ranks& ranks,
              std::stop_token const& stop)
        : m_field(field), m_lattice(options.grid), m_ranks(ranks), m_stop(stop),
          m_progress("samples", ranks.showsProgress()) {
        zel::NpyLayout layout;
        layout.shape.assign(m_lattice.counts().begin(), m_lattice.counts().end());
        if constexpr (std::is_same_v<Value, float3>) layout.shape.push_back(3);
        m_header = zel::npyHeader(layout);
    }

    void run(std::string const& path) {
        SharedFile file(m_ranks, path, m_header,
                        m_header.size() + m_lattice.size() * sizeof(Value));
        std::vector<Range> ranges = split();
        double turn = m_ranks.isAlone() ? 0 : kFirstTurn;
        for (std::uint64_t left = m_lattice.size(); left > 0;) {
            Range& own = ranges[m_ranks.rank()];
            std::uint64_t const first = own.first;
            double const speed = evaluateFor(turn, own);
            file.write(m_header.size() + first * sizeof(Value), std::as_bytes(std::span(m_values)));
            left = update(ranges, speed, turn);
            m_progress(static_cast<std::size_t>(m_lattice.size() - left),
                       static_cast<std::size_t>(m_lattice.size()));
        }
        file.commit();
    }

private:
    static constexpr std::uint64_t kAtATime = 1 << 18;  ///< samples of one batch, at most
    static constexpr double kFirstTurn = 0.02, kLongestTurn = 0.25;  ///< in seconds

    /// The ranges of the ranks at first, by the times of runs of samples all over the box.
    std::vector<Range> split() {
        constexpr std::uint64_t kRun = 256, kRunsOfRank = 32;
        std::uint64_t const count = m_lattice.size();
        std::uint64_t const runs = m_ranks.isAlone() ? 0 : kRunsOfRank * m_ranks.size();
        if (count < runs * kRun) return splitByWeight(count, {}, m_ranks.size());
        std::vector<double> own;
        for (std::uint64_t run = m_ranks.rank(); run < runs; run += m_ranks.size()) {
            std::uint64_t const first = count / runs * run + count / runs / 2;
            double least = 1e9;
            for (int i = 0; i < 3; ++i) {
                Clock::time_point const start = Clock::now();
                m_values.clear();
                evaluate(first, kRun);
                least = std::min(least, secondsSince(start));
            }
            own.push_back(least);
        }
        auto const all = m_ranks.gather(own);
        std::vector<double> weights;
        for (std::uint64_t run = 0; run < runs; ++run)
            weights.push_back(all[run % m_ranks.size() * kRunsOfRank + run / m_ranks.size()]);
        return splitByWeight(count, weights, m_ranks.size());
    }

    /// Appends values.
    void evaluate(std::uint64_t first, std::uint64_t count) {
        m_positions.resize(static_cast<std::size_t>(count));
        m_values.resize(m_values.size() + m_positions.size());
        m_lattice.positions(first, m_positions);
        zel::EvaluateOptions how;
        how.firstIndex = static_cast<long long>(first);
        how.stop = m_stop;
        zel::evaluate(m_field, zel::PointView::of(m_positions),
                      std::span(m_values).last(m_positions.size()), how);
    }

    /// Evaluates the first samples of a range, and takes them from it. Returns the samples a
    /// second.
    double evaluateFor(double seconds, Range& range) {
        m_values.clear();
        Clock::time_point const start = Clock::now();
        double passed = 0;
        do {
            std::uint64_t const count = std::min({m_batch, range.size(), m_most - m_values.size()});
            evaluate(range.first, count);
            range.first += count;
            double const before = std::exchange(passed, secondsSince(start));
            if (m_ranks.isAlone()) continue;
            if (passed - before < seconds / 32) m_batch = std::min(2 * m_batch, kAtATime);
            if (passed - before > seconds / 8) m_batch = std::max<std::uint64_t>(m_batch / 2, 256);
        } while (passed < seconds && range.size() > 0 && m_values.size() < m_most);
        return static_cast<double>(m_values.size()) / std::max(passed, 1e-9);
    }

    /// Tells all ranks which samples are left, and how long the next turn takes. Returns the number
    /// of samples that are left.
    std::uint64_t update(std::vector<Range>& ranges, double speed, double& turn) {
        // A double has any number of samples that fits on a disk.
        std::array const own{static_cast<double>(ranges[m_ranks.rank()].first), speed};
        auto const all = m_ranks.gather(own);
        std::uint64_t left = 0;
        double fastest = 0;
        m_seconds.resize(ranges.size(), 1);
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            ranges[i].first = static_cast<std::uint64_t>(all[2 * i]);
            left += ranges[i].size();
            if (all[2 * i + 1] > 0) m_seconds[i] = 1 / all[2 * i + 1];
            fastest = std::max(fastest, all[2 * i + 1]);
        }
        if (m_ranks.isAlone()) return left;
        shareOut(ranges, m_seconds, kRunOfShare);
        // The fastest rank is not to run out of memory before the end of the turn.
        turn = std::min(kLongestTurn, 0.9 * static_cast<double>(m_most) / fastest);
        return left;
    }
    static constexpr std::uint64_t kRunOfShare = 1 << 10;

    Interface const& m_field;
    Lattice m_lattice;
    Ranks& m_ranks;
    std::stop_token m_stop;
    Progress m_progress;
    std::string m_header;
    /// The samples of one turn. More than 2^20 of a thread would be out of its caches when they are
    /// written.
    std::uint64_t m_most =
        static_cast<std::uint64_t>(std::min(tbb::this_task_arena::max_concurrency(), 4)) << 20;
    std::uint64_t m_batch = m_ranks.isAlone() ? kAtATime : 1 << 12;
    std::vector<float3> m_positions;
    std::vector<Value> m_values;
    std::vector<double> m_seconds;
};

}  // namespace

void writeDense(zel::Tree const& tree, VolumeOptions const& options, Ranks& ranks,
                std::stop_token const& stop) {
    if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree))
        DenseWork<zel::ScalarField, float>(**scalar, options, ranks, stop).run(options.output);
    else
        DenseWork<zel::VectorField, float3>(*std::get<zel::VectorPtr>(tree), options, ranks, stop)
            .run(options.output);
}

}  // namespace command
