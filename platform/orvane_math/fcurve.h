#pragma once

#include "zel_platform/platform_api.h"

#include <vector>

namespace Orvane::Math {

/// A piecewise function of one variable, set up from keys and not changed afterwards.
class ZEL_PLATFORM_API FCurve {
public:
    /// The curve between a key and the next one.
    enum class Segment {
        kConstant,  ///< the key's value
        kLinear,    ///< the straight line between the two keys
        kCubic,     ///< the Hermite cubic with the key's outSlope and the next key's inSlope
    };

    /// The curve before the first key, and after the last one.
    enum class Extrapolation {
        kConstant,         ///< the value of the key at that end
        kLinear,           ///< the tangent of the curve at that end
        kCycle,            ///< the keyed range over and over
        kCycleWithOffset,  ///< the same, each time moved on by the last value minus the first
    };

    struct Key {
        double x = 0;
        double value = 0;
        double inSlope = 0;                  ///< dvalue/dx arriving at the key
        double outSlope = 0;                 ///< dvalue/dx leaving the key
        Segment segment = Segment::kLinear;  ///< of the interval that starts at this key
    };

    /// No keys: 0 everywhere, NaN included.
    FCurve() = default;

    /// Keys in strictly rising order of x, all numbers finite. Throws std::invalid_argument
    /// otherwise, with the index and the value of the key at fault, and for an enumerator that does
    /// not exist.
    FCurve(std::vector<Key> keys, Extrapolation before, Extrapolation after);

    /// The curve at `x`; at a key, that key's value. One binary search. Safe to call from many
    /// threads at once.
    ///
    /// Linear extrapolation has the slope of a linear end segment, the slope of the end key towards
    /// the keys if that segment is cubic, and 0 if it is constant; a single key has its inSlope
    /// before and its outSlope after. A straight line of slope 1 through keys with x == value gives
    /// x exactly. Cycles repeat with the period last x minus first x, exactly reduced at any x; at
    /// whole periods outside the keys they have reached the first key again. A single key is
    /// constant in a cycle.
    ///
    /// NaN gives NaN. Infinities give the limit where there is one: the end value, or an infinity
    /// of the sign in which the line or the offset cycles go; a cycle without offset has none and
    /// gives NaN. A cycle whose period overflows has the value of the nearer end. Slopes that
    /// overflow, or whose products with a width do, follow the floating-point rules.
    double evalFCurve(double x) const;

private:
    ZEL_PLATFORM_INTERNAL double insideKeys(double x) const;
    ZEL_PLATFORM_INTERNAL double extrapolate(Extrapolation kind, bool after, double x) const;
    ZEL_PLATFORM_INTERNAL double endSlope(bool after) const;
    ZEL_PLATFORM_INTERNAL double cycle(bool withOffset, double x) const;

    std::vector<Key> m_keys;
    Extrapolation m_before = Extrapolation::kConstant;
    Extrapolation m_after = Extrapolation::kConstant;
};

}  // namespace Orvane::Math
