#include "shares.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace command {

std::vector<Range> splitByWeight(std::uint64_t count, std::span<double const> weights,
                                 std::size_t ranges, std::uint64_t step) {
    std::vector<double> sums(weights.size() + 1);
    std::partial_sum(weights.begin(), weights.end(), sums.begin() + 1);
    if (!(sums.back() > 0) || std::isinf(sums.back())) sums = {0, 1};
    auto const pieces = static_cast<double>(sums.size() - 1);
    std::vector<Range> split(ranges);
    std::uint64_t place = 0;
    for (std::size_t i = 0; i < ranges; ++i) {
        split[i].first = place;
        double const wanted =
            sums.back() * static_cast<double>(i + 1) / static_cast<double>(ranges);
        // The piece in which the sum reaches the wanted one; within it, weight is spread evenly.
        auto const above = std::lower_bound(sums.begin() + 1, sums.end() - 1, wanted);
        double const before = *(above - 1), in = *above - before;
        double const part = in > 0 ? std::clamp((wanted - before) / in, 0.0, 1.0) : 1.0;
        double const at = (static_cast<double>(above - sums.begin() - 1) + part) / pieces;
        auto const steps =
            std::llround(at * static_cast<double>(count) / static_cast<double>(step));
        place = i + 1 == ranges
                    ? count
                    : std::clamp(static_cast<std::uint64_t>(steps) * step, place, count);
        split[i].last = place;
    }
    return split;
}

void shareOut(std::span<Range> ranges, std::span<double const> seconds, std::uint64_t least) {
    for (Range& range : ranges) {
        if (range.size() > 0) continue;
        std::size_t longest = 0;
        double most = -1;
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            double const time = static_cast<double>(ranges[i].size()) * seconds[i];
            if (time > most) {
                most = time;
                longest = i;
            }
        }
        Range& other = ranges[longest];
        if (other.size() < 2 * least) return;
        std::uint64_t const middle = other.first + other.size() / 2;
        range = {middle, other.last};
        other.last = middle;
    }
}

}  // namespace command
