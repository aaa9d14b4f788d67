// Makes a curve of keys from bytes, and compares it and its slope with the formulas in long double,
// up to the rounding of the numbers that are added, and to the bit where the curve is exact.

#include <algorithm>
#include <cmath>
#include <limits>
#include <span>
#include <stdexcept>
#include <vector>

#include "expect.h"
#include "support/choices.h"
#include "zel_platform/orvane_math/fcurve.h"

namespace {

using Orvane::Math::FCurve;
using Key = FCurve::Key;
using Kind = FCurve::Extrapolation;
using Segment = FCurve::Segment;
using Real = long double;
using support::Choices;

constexpr Real kEpsilon = std::numeric_limits<double>::epsilon();
constexpr Real kLeast = std::numeric_limits<double>::denorm_min();
constexpr Real kMost = std::numeric_limits<double>::max();

double someDouble(Choices& choices) {
    static constexpr double kOdd[] = {0, -0.0, 5e-324, 1e-310, 0x1p53, 1e300, kMost, -kMost};
    auto const kind = choices() & 0xffff;
    if (kind < 0xc000) return static_cast<double>(kind % 0x1000) / 0x100 - 8;
    if (kind < 0xe000) return kOdd[kind % std::size(kOdd)];
    auto bits = std::uint64_t{kind} << 48;
    for (int shift = 32; shift >= 0; shift -= 16)
        bits ^= std::uint64_t{choices() & 0xffff} << shift;
    return std::bit_cast<double>(bits);
}

/// A number and how far a double may be from it. Nothing is said of numbers about as large as any.
struct Estimate {
    Real value = 0;
    Real error = 0;

    void check(double got) const {
        if (!(std::abs(value) + error < kMost / 4)) return;
        expect(std::abs(got - value) <= error + 4 * kLeast);
    }
};

/// Of the segment from a to b, at x between them.
Estimate inSegment(Key const& a, Key const& b, Real x, bool slope) {
    Real const width = Real{b.x} - a.x, rise = Real{b.value} - a.value, u = (x - a.x) / width;
    Real const out = a.outSlope, in = b.inSlope;
    Real const values = std::abs(Real{a.value}) + std::abs(Real{b.value});
    switch (a.segment) {
    case Segment::kConstant:
        return {slope ? 0 : Real{a.value}, 0};
    case Segment::kLinear:
        if (slope) return {rise / width, 8 * kEpsilon * std::abs(rise / width)};
        return {a.value + u * rise, 8 * kEpsilon * values + kLeast * width};
    case Segment::kCubic:
        break;
    }
    Real const c = 3 * rise - (2 * out + in) * width, d = (out + in) * width - 2 * rise;
    Real const sum = values / width + std::abs(out) + std::abs(in);
    if (sum * std::max<Real>(width, 1) > kMost / 32) return {0, kMost};
    if (slope) return {out + u * (2 * c + u * 3 * d) / width, 64 * kEpsilon * sum + 64 * kLeast};
    return {a.value + u * (out * width + u * (c + u * d)), 64 * kEpsilon * sum * width};
}

class Curve {
public:
    Curve(std::vector<Key> const& keys, Kind before, Kind after)
        : m_keys(keys), m_kinds{before, after}, m_first(keys.front()), m_last(keys.back()) {}

    Estimate at(double x, bool slope) const {
        if (std::isnan(x)) return {0, kMost};
        bool const before = x<m_first.x, after = x> m_last.x;
        bool const isSingle = m_keys.size() == 1;
        if (!before && !after && !isSingle) return inside(x, slope);
        bool const above = !before;
        Key const& end = above ? m_last : m_first;
        Kind const kind = m_kinds[above];
        if (kind == Kind::kLinear) return line(end, above, x, slope);
        if (kind == Kind::kConstant || isSingle) return {slope ? 0 : Real{end.value}, 0};
        if (!std::isfinite(x)) return {0, kMost};
        double const period = m_last.x - m_first.x;
        if (!std::isfinite(period)) return {slope ? 0 : Real{end.value}, 0};
        return cycle(period, x, kind == Kind::kCycleWithOffset, slope);
    }

private:
    /// From the first key to the last one, or a little beyond them.
    Estimate inside(Real x, bool slope) const {
        auto next = std::upper_bound(m_keys.begin(), m_keys.end(), x,
                                     [](Real at, Key const& key) { return at < key.x; });
        if (x == m_last.x && !slope) return {m_last.value, 0};
        next = std::clamp(next, m_keys.begin() + 1, m_keys.end() - 1);
        if (x == next[-1].x && !slope) return {next[-1].value, 0};
        return inSegment(next[-1], *next, x, slope);
    }
    Estimate line(Key const& end, bool above, Real x, bool slope) const {
        Estimate of{above ? end.outSlope : end.inSlope, 0};
        if (m_keys.size() > 1) {
            auto const a = above ? m_keys.end() - 2 : m_keys.begin();
            of = inSegment(a[0], a[1], end.x, true);
            if (a->segment == Segment::kCubic) of = {above ? a[1].inSlope : a[0].outSlope, 0};
        }
        if (slope) return of;
        if (of.value == 0 && of.error == 0) return {end.value, 0};
        Real const rise = of.value * (x - end.x);
        Real const sum = std::abs(Real{end.value}) + std::abs(rise);
        if (std::max(std::abs(of.value), std::abs(rise)) > kMost / 2) return {0, kMost};
        return {end.value + rise, 8 * kEpsilon * sum + (of.error + kLeast) * std::abs(x - end.x)};
    }
    /// All places within the rounding of the phase, unless there are keys in between.
    Estimate cycle(double period, double x, bool withOffset, bool slope) const {
        Real phase =
            std::fmod(Real{std::fmod(x, period)} - std::fmod(m_first.x, period), Real{period});
        if (phase < 0) phase += period;
        Real const offset = withOffset ? Real{m_last.value} - m_first.value : 0;
        Real const count = std::round((x - Real{m_first.x} - phase) / period);
        Real const reach = 8 * kEpsilon * (std::abs(Real{m_first.x}) + period),
                   at = m_first.x + phase;
        if (std::max(Real{1}, std::abs(count)) * std::abs(offset) > kMost / 2) return {0, kMost};
        for (Key const& key : m_keys)
            if (std::abs(key.x - at) <= 2 * reach) return {0, kMost};
        auto const below = inside(at - reach, slope), here = inside(at, slope),
                   above = inside(at + reach, slope);
        auto const [low, high] = std::minmax({below.value, here.value, above.value});
        Real const error = here.error + 4 * (high - low);
        if (slope) return {here.value, error};
        Real const rounding = 8 * kEpsilon * (std::abs(count * offset) + std::abs(here.value));
        return {here.value + count * offset,
                error + rounding + kLeast * std::abs(x - Real{m_first.x})};
    }

    std::vector<Key> const& m_keys;
    Kind m_kinds[2];
    Key const &m_first, &m_last;
};

bool areGood(std::vector<Key> const& keys) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        for (double const number : {keys[i].x, keys[i].value, keys[i].inSlope, keys[i].outSlope})
            if (!std::isfinite(number)) return false;
        if (i > 0 && !(keys[i - 1].x < keys[i].x)) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Choices choices(std::span(data, size));
    auto const kind = choices();
    std::vector<Key> keys(kind % 8);
    bool const isIdentity = kind / 8 % 8 == 0, ascends = kind / 64 % 8 != 0;
    for (Key& key : keys) {
        key = {someDouble(choices), someDouble(choices), someDouble(choices), someDouble(choices),
               static_cast<Segment>(choices() % 3)};
        if (isIdentity) key = {key.x, key.x, 1, 1, Segment::kLinear};
    }
    if (ascends)
        std::ranges::sort(keys, {}, [](Key const& key) { return std::isnan(key.x) ? 0 : key.x; });
    auto const before = static_cast<Kind>(kind / 512 % 4),
               after = static_cast<Kind>(kind / 2048 % 4);
    bool made = false;
    try {
        FCurve const curve(keys, before, after);
        made = true;
        expect(areGood(keys));
        for (int i = 0; i < 20; ++i) {
            double x = someDouble(choices);
            if (i % 4 == 0 && !keys.empty()) x = keys[choices() % keys.size()].x;
            if (i % 8 == 0) x = std::nextafter(x, someDouble(choices));
            double const value = curve.evalFCurve(x), slope = curve.slope(x);
            if (keys.empty()) {
                expect(value == 0 && slope == 0);
                continue;
            }
            expect(!std::isnan(x) || (std::isnan(value) && std::isnan(slope)));
            Curve const reference(keys, before, after);
            reference.at(x, false).check(value);
            reference.at(x, true).check(slope);
            bool const goesOn = (x >= keys.front().x || before == Kind::kLinear) &&
                                (x <= keys.back().x || after == Kind::kLinear);
            if (isIdentity && goesOn && !std::isnan(x)) expect(value == x);
        }
    } catch (std::invalid_argument const&) {
        expect(!made && !areGood(keys));
    }
    return 0;
}
