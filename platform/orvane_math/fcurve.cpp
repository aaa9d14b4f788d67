#include "zel_platform/orvane_math/fcurve.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <limits>
#include <ostream>
#include <stdexcept>
#include <utility>

#include "zel_platform/quern_core/text_of.h"

namespace Orvane::Math {
namespace {

using Key = FCurve::Key;

template <class... Parts> [[noreturn]] void refuse(Parts const&... parts) {
    throw std::invalid_argument(Quern::Internal::textOf([&](std::ostream& text) {
        text << std::setprecision(std::numeric_limits<double>::max_digits10) << "FCurve: ";
        (text << ... << parts);
    }));
}

void checkKeys(std::vector<Key> const& keys) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        Key const& key = keys[i];
        std::pair<char const*, double> const numbers[] = {{"x", key.x},
                                                          {"value", key.value},
                                                          {"inSlope", key.inSlope},
                                                          {"outSlope", key.outSlope}};
        for (auto const& [name, number] : numbers)
            if (!std::isfinite(number))
                refuse("key ", i, " has ", name, " ", number, ", which is not finite");
        if (key.segment < FCurve::Segment::kConstant || key.segment > FCurve::Segment::kCubic)
            refuse("key ", i, " has the unknown segment ", static_cast<int>(key.segment));
        if (i > 0 && !(keys[i - 1].x < key.x))
            refuse("key ", i, " at x ", key.x, " is not after key ", i - 1, " at x ",
                   keys[i - 1].x);
    }
}

void checkExtrapolation(FCurve::Extrapolation kind) {
    if (kind < FCurve::Extrapolation::kConstant || kind > FCurve::Extrapolation::kCycleWithOffset)
        refuse("unknown extrapolation ", static_cast<int>(kind));
}

/// (b.value - a.value) / (b.x - a.x), also where a difference overflows.
double chord(Key const& a, Key const& b) {
    double const rise = b.value - a.value, width = b.x - a.x;
    return std::isfinite(rise) && std::isfinite(width)
               ? rise / width
               : (b.value / 2 - a.value / 2) / (b.x / 2 - a.x / 2);
}

/// value + slope * (x - anchor), with the rounding errors of both sums added back (D. E. Knuth,
/// "The Art of Computer Programming", volume 2, 4.2.2), so that slope 1 through (a, a) returns x.
double line(double anchor, double value, double slope, double x) {
    if (slope == 0) return value;  // also at infinity
    auto const error = [](double a, double b, double sum) {
        double const bPart = sum - a;
        return (a - (sum - bPart)) + (b - bPart);
    };
    auto const at = [&](double scale) {
        double const a = scale * anchor, v = scale * value, p = scale * x;
        double const dx = p - a, rise = slope * dx, sum = v + rise;
        return std::pair(sum, error(v, rise, sum) + slope * error(p, -a, dx));
    };
    auto const [sum, lost] = at(1);
    if (std::isfinite(sum) && std::isfinite(lost)) return sum + lost;
    if (!std::isfinite(x)) return sum;
    // An intermediate result overflows, but the value need not: compute half of it.
    auto const [half, lostOfHalf] = at(0.5);
    return 2 * (std::isfinite(lostOfHalf) ? half + lostOfHalf : half);
}

/// The straight line from a to b, at an `x` between them. The slope between keys that are close to
/// each other may overflow.
double linear(Key const& a, Key const& b, double x) {
    double const slope = chord(a, b);
    return std::isfinite(slope) ? line(a.x, a.value, slope, x)
                                : std::lerp(a.value, b.value, (x - a.x) / (b.x - a.x));
}

/// The Hermite cubic from a to b.
double cubic(Key const& a, Key const& b, double x) {
    // Where an intermediate result overflows, the curve is computed again from scaled keys.
    auto const scaled = [&](double sx, double sv) {
        double const width = sx * b.x - sx * a.x, u = (sx * x - sx * a.x) / width;
        double const rise = sv * b.value - sv * a.value;
        // The width is scaled, not the slopes, which may be subnormal where the width is huge.
        double const scaledWidth = sv / sx * width;
        double const out = scaledWidth * a.outSlope, in = scaledWidth * b.inSlope;
        return sv * a.value +
               u * (out + u * ((3 * rise - 2 * out - in) + u * (out + in - 2 * rise)));
    };
    double const value = scaled(1, 1);
    return std::isfinite(value) ? value : 16 * scaled(0.5, 0.0625);
}

/// The derivative of cubic().
double cubicSlope(Key const& a, Key const& b, double x) {
    auto const scaled = [&](double sx, double sv) {
        double const width = sx * b.x - sx * a.x, u = (sx * x - sx * a.x) / width;
        double const rise = (sv * b.value - sv * a.value) / width * sx;
        double const out = sv * a.outSlope, in = sv * b.inSlope;
        return out + u * (2 * (3 * rise - 2 * out - in) + u * (3 * (out + in - 2 * rise)));
    };
    double const slope = scaled(1, 1);
    return std::isfinite(slope) && std::isfinite(b.x - a.x) ? slope : 16 * scaled(0.5, 0.0625);
}

/// The slope of the segment from a to b, which is `ofCubic()` if it is cubic.
template <class OfCubic> double segmentSlope(Key const& a, Key const& b, OfCubic const& ofCubic) {
    switch (a.segment) {
    case FCurve::Segment::kConstant:
        return 0;
    case FCurve::Segment::kLinear:
        return chord(a, b);
    case FCurve::Segment::kCubic:
        break;
    }
    return ofCubic();
}

/// The first key after x, or the end.
auto keyAfter(std::vector<Key> const& keys, double x) {
    return std::upper_bound(keys.begin(), keys.end(), x,
                            [](double at, Key const& key) { return at < key.x; });
}

}  // namespace

FCurve::FCurve(std::vector<Key> keys, Extrapolation before, Extrapolation after)
    : m_keys(std::move(keys)), m_before(before), m_after(after) {
    checkKeys(m_keys);
    checkExtrapolation(before);
    checkExtrapolation(after);
}

double FCurve::evalFCurve(double x) const {
    if (m_keys.empty()) return 0;
    if (std::isnan(x)) return x;
    if (x < m_keys.front().x) return extrapolate(m_before, false, x);
    if (x > m_keys.back().x) return extrapolate(m_after, true, x);
    return insideKeys(x);
}

double FCurve::slope(double x) const {
    if (m_keys.empty()) return 0;
    if (std::isnan(x)) return x;
    bool const single = m_keys.size() == 1,
               before = x<m_keys.front().x, after = x> m_keys.back().x || (single && !before);
    if (!before && !after) return slopeInsideKeys(x);
    switch (before ? m_before : m_after) {
    case Extrapolation::kConstant:
        break;
    case Extrapolation::kLinear:
        return lineSlope(after);
    case Extrapolation::kCycle:
    case Extrapolation::kCycleWithOffset:
        if (single) break;
        if (!std::isfinite(x)) return std::numeric_limits<double>::quiet_NaN();
        double const first = m_keys.front().x;
        if (!std::isfinite(m_keys.back().x - first)) break;
        return slopeInsideKeys(std::max(first + phaseOf(x), first));
    }
    return 0;
}

/// The slope at an `x` from the first of several keys on; from the last key on, that at its left.
double FCurve::slopeInsideKeys(double x) const {
    auto const next = keyAfter(m_keys, x);
    if (next == m_keys.end()) return endSlope(true);
    Key const &a = *(next - 1), &b = *next;
    return segmentSlope(a, b, [&] { return cubicSlope(a, b, x); });
}

/// The curve at an `x` that is not before the first key; after the last key, that key's value.
double FCurve::insideKeys(double x) const {
    auto const next = keyAfter(m_keys, x);
    Key const& a = *(next - 1);
    if (next == m_keys.end() || x == a.x) return a.value;
    switch (a.segment) {
    case Segment::kConstant:
        return a.value;
    case Segment::kLinear:
        return linear(a, *next, x);
    case Segment::kCubic:
        break;
    }
    return cubic(a, *next, x);
}

double FCurve::extrapolate(Extrapolation kind, bool after, double x) const {
    Key const& end = after ? m_keys.back() : m_keys.front();
    bool const single = m_keys.size() == 1;
    switch (kind) {
    case Extrapolation::kConstant:
        break;
    case Extrapolation::kLinear:
        return line(end.x, end.value, lineSlope(after), x);
    case Extrapolation::kCycle:
    case Extrapolation::kCycleWithOffset:
        if (!single) return cycle(kind == Extrapolation::kCycleWithOffset, x);
    }
    return end.value;
}

/// The slope of linear extrapolation.
double FCurve::lineSlope(bool after) const {
    if (m_keys.size() > 1) return endSlope(after);
    return after ? m_keys.back().outSlope : m_keys.front().inSlope;
}

/// The slope of the first segment at the first key, or of the last segment at the last key. There
/// must be two keys or more.
double FCurve::endSlope(bool after) const {
    std::size_t const i = after ? m_keys.size() - 2 : 0;
    Key const &a = m_keys[i], &b = m_keys[i + 1];
    return segmentSlope(a, b, [&] { return after ? b.inSlope : a.outSlope; });
}

/// The distance of an `x` from the beginning of its period, which is finite.
double FCurve::phaseOf(double x) const {
    double const first = m_keys.front().x, period = m_keys.back().x - first;
    // Remainders are exact, so that only the difference and one sum are rounded, however far away x
    // is. Just before a whole period the sum may be rounded up to the period, the end of the keys.
    double const phase = std::fmod(std::fmod(x, period) - std::fmod(first, period), period);
    return phase < 0 ? phase + period : phase;
}

double FCurve::cycle(bool withOffset, double x) const {
    Key const &first = m_keys.front(), &last = m_keys.back();
    double const period = last.x - first.x, offset = withOffset ? last.value - first.value : 0;
    if (!std::isfinite(x)) return x * offset;  // NaN without an offset
    if (!std::isfinite(period)) return x < first.x ? first.value : last.value;

    double const phase = phaseOf(x);
    // The sum is less than first.x only on a thread that flushes subnormal numbers to zero.
    double const value = insideKeys(std::max(first.x + phase, first.x));
    if (offset == 0) return value;
    double const count = std::round(x / period - first.x / period - phase / period);
    if (std::isfinite(count)) return value + count * offset;
    // The keys are so close to each other that the slope of the cycles may overflow, too.
    double const distance = x - first.x - phase, shift = distance * (offset / period);
    return value + (std::isfinite(shift) ? shift : distance * offset / period);
}

}  // namespace Orvane::Math
