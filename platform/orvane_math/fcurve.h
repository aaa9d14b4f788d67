#pragma once

#include "zel_platform/platform_api.h"

#include <vector>

namespace Orvane::Math {

/// A piecewise function of one variable. It is made from keys and does not change afterwards.
class ZEL_PLATFORM_API FCurve {
public:
    /// The curve between a key and the next key.
    enum class Segment {
        kConstant,  ///< the key's value
        kLinear,    ///< the straight line between the two keys
        kCubic,     ///< the Hermite cubic with the key's outSlope and the next key's inSlope
    };

    /// The curve before the first key, and after the last key.
    enum class Extrapolation {
        kConstant,         ///< the value of the key at that end
        kLinear,           ///< the tangent of the curve at that end
        kCycle,            ///< the curve between the keys, repeated
        kCycleWithOffset,  ///< repeated, each time shifted by the last value minus the first
    };

    struct Key {
        double x = 0;
        double value = 0;
        double inSlope = 0;                  ///< dvalue/dx arriving at the key
        double outSlope = 0;                 ///< dvalue/dx leaving the key
        Segment segment = Segment::kLinear;  ///< of the interval that starts at this key
    };

    /// A curve without keys is 0 everywhere, NaN included.
    FCurve() = default;

    /// Keys must be in strictly ascending order of x, and all numbers finite. Throws
    /// std::invalid_argument otherwise, with the index and the value of the key at fault, and for
    /// an enumerator that does not exist.
    FCurve(std::vector<Key> keys, Extrapolation before, Extrapolation after);

    /// Returns the curve at `x`; at a key, that key's value. Takes one binary search. Safe to call
    /// from any number of threads at once.
    ///
    /// Linear extrapolation has the slope of the end segment at the end key: 0 if the segment is
    /// constant. A single key is extrapolated by its inSlope before it and its outSlope after it. A
    /// straight line of slope 1 through keys with x == value gives x exactly. The period of a cycle
    /// is last x minus first x, and x is reduced to it exactly; at whole periods outside the keys a
    /// cycle begins again with the first key. A single key is constant in a cycle.
    ///
    /// NaN gives NaN. An infinite x gives the limit where there is one: the end value, or infinity
    /// with the sign of the line or of the offset cycles; a cycle without offset has no limit and
    /// gives NaN. A cycle whose period overflows has the value of the nearer end at any finite x.
    /// Where a slope or the shift of a cycle overflows, or its product with a width or a number of
    /// cycles, the result follows the floating-point rules.
    double evalFCurve(double x) const;

    /// Returns the derivative of the curve at `x`. At a key it is that of the segment that starts
    /// there, and at the last of several keys that of the last segment. A step is flat. NaN gives
    /// NaN, and so does an infinite x in a cycle. As safe and as fast as evalFCurve().
    double slope(double x) const;

    std::vector<Key> const& keys() const { return m_keys; }
    Extrapolation before() const { return m_before; }
    Extrapolation after() const { return m_after; }

private:
    ZEL_PLATFORM_INTERNAL double insideKeys(double x) const;
    ZEL_PLATFORM_INTERNAL double slopeInsideKeys(double x) const;
    ZEL_PLATFORM_INTERNAL double extrapolate(Extrapolation kind, bool after, double x) const;
    ZEL_PLATFORM_INTERNAL double lineSlope(bool after) const;
    ZEL_PLATFORM_INTERNAL double endSlope(bool after) const;
    ZEL_PLATFORM_INTERNAL double cycle(bool withOffset, double x) const;
    ZEL_PLATFORM_INTERNAL double phaseOf(double x) const;

    std::vector<Key> m_keys;
    Extrapolation m_before = Extrapolation::kConstant;
    Extrapolation m_after = Extrapolation::kConstant;
};

}  // namespace Orvane::Math
