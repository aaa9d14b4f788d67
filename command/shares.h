#pragma once

#include <cstdint>
#include <span>
#include <vector>

// How ranks share samples that are numbered from 0.
namespace command {

/// The numbers from `first` to `last` - 1.
struct Range {
    std::uint64_t first = 0, last = 0;

    std::uint64_t size() const { return last - first; }
};

/// Splits the numbers below `count` into ranges of equal weight. `weights` are those of pieces of
/// equal size, the pieces in order; equal ones are assumed if none is above 0. The ranges begin at
/// multiples of `step`; some may be empty.
std::vector<Range> splitByWeight(std::uint64_t count, std::span<double const> weights,
                                 std::size_t ranges, std::uint64_t step = 1);

/// Lets each empty range take the second half of the range that takes the longest, by the seconds
/// a number that each rank needs, unless the halves were of fewer numbers than `least`.
void shareOut(std::span<Range> ranges, std::span<double const> seconds, std::uint64_t least);

}  // namespace command
