#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <utility>
#include <vector>

/// Prints the console report, only medians where a benchmark is repeated, and keeps the times of
/// all repetitions by the name of the benchmark, for a table.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    /// The counter that holds the time of one item, in seconds.
    static constexpr char const* kCounter = "time_per_item";

    /// The times of the repetitions of a benchmark; zeros if it did not run.
    struct Times {
        double median = 0, least = 0;  ///< ns an item
        double busy = 0;               ///< processor time divided by real time, at the median
    };

    void ReportRuns(std::vector<Run> const& runs) override {
        std::vector<Run> shown;
        for (Run const& run : runs) {
            bool const repetition = run.run_type == Run::RT_Iteration;
            if (repetition && !run.error_occurred) {
                auto const counter = run.counters.find(kCounter);
                if (counter != run.counters.end())
                    results[run.run_name.function_name].push_back(
                        {counter->second.value * 1e9,
                         run.cpu_accumulated_time / run.real_accumulated_time});
            }
            if (run.error_occurred) failed = true;
            if (run.error_occurred ||
                (repetition ? run.repetitions <= 1 : run.aggregate_name == "median"))
                shown.push_back(run);
        }
        if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
    }

    bool anyError() const { return failed; }

    Times operator[](std::string const& name) const {
        auto const found = results.find(name);
        if (found == results.end()) return {};
        std::vector<Result> sorted = found->second;
        std::sort(sorted.begin(), sorted.end(),
                  [](Result const& a, Result const& b) { return a.time < b.time; });
        Result const& middle = sorted[sorted.size() / 2];  // the upper one of an even number
        return {middle.time, sorted.front().time, middle.busy};
    }

private:
    struct Result {
        double time, busy;
    };
    std::map<std::string, std::vector<Result>> results;
    bool failed = false;
};

/// Sets the number of items that an iteration processes.
inline void countItems(benchmark::State& state, double items) {
    using benchmark::Counter;
    state.counters[RatioReporter::kCounter] =
        Counter(items, Counter::kIsIterationInvariantRate | Counter::kInvert);
}

/// Reads the command line before benchmarks are registered; returns false if it is wrong.
/// Repetitions in random order average out other loads of the machine. The options of the command
/// line override the parameters.
inline bool startBenchmarks(int argc, char** argv, int repetitions, std::string const& minTime) {
    std::string options[] = {"--benchmark_repetitions=" + std::to_string(repetitions),
                             "--benchmark_min_time=" + minTime,
                             "--benchmark_enable_random_interleaving=true"};
    std::vector<char*> arguments(argv, argv + argc);
    for (std::string& option : options) arguments.insert(arguments.begin() + 1, option.data());
    int count = static_cast<int>(arguments.size());
    arguments.push_back(nullptr);
    benchmark::Initialize(&count, arguments.data());
    return !benchmark::ReportUnrecognizedArguments(count, arguments.data());
}

/// Runs the registered benchmarks, calls `print(report)`, and returns the exit status of the
/// program.
template <class Print> int runBenchmarks(Print const& print) {
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    print(std::as_const(reporter));
    benchmark::Shutdown();
    return reporter.anyError() ? EXIT_FAILURE : EXIT_SUCCESS;
}

/// Prints `value` right-aligned, or a dash if it is 0, that is, unknown.
inline void printCell(double value, int width, int digits) {
    if (value > 0)
        std::printf("%*.*f", width, digits, value);
    else
        std::printf("%*s", width, "-");
}

/// a / b, or 0 if one of them is unknown.
inline double ratio(double a, double b) {
    return a > 0 && b > 0 ? a / b : 0;
}
