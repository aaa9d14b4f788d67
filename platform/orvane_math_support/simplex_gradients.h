#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <numbers>

namespace Orvane::Math::Simplex {

/// The number of gradient directions in four dimensions. The highest bits of a hash select one.
inline constexpr std::size_t kDirections = 128;
inline constexpr int kDirectionShift = 32 - std::bit_width(kDirections - 1);

/// A direction as a row of a table, aligned to its size.
template <class Real> struct alignas(4 * sizeof(Real)) Direction { Real x, y, z, w; };

using Quaternion = std::array<double, 4>;  // real part last

constexpr Quaternion multiply(Quaternion const& a, Quaternion const& b) {
    return {a[3] * b[0] + a[0] * b[3] + a[1] * b[2] - a[2] * b[1],
            a[3] * b[1] - a[0] * b[2] + a[1] * b[3] + a[2] * b[0],
            a[3] * b[2] + a[0] * b[1] - a[1] * b[0] + a[2] * b[3],
            a[3] * b[3] - a[0] * b[0] - a[1] * b[1] - a[2] * b[2]};
}

/// The 120 vertices of the regular 600-cell (H. S. M. Coxeter, "Regular Polytopes", 1973). Their
/// moments equal those of the sphere up to the eleventh degree, so that no axis shows in sums of
/// noise. They are rotated by v -> p * v * q with two unit quaternions, away from the axes and
/// diagonals of the lattice. The first eight vertices, four opposite pairs at right angles, are
/// listed twice, so that seven bits of a hash select a direction; this changes only moments above
/// the third degree, by one part in 16.
constexpr std::array<Quaternion, kDirections> makeDirections() {
    constexpr Quaternion p = {1 / 11.0, 2 / 11.0, 4 / 11.0, 10 / 11.0};
    constexpr Quaternion q = {2 / 9.0, 4 / 9.0, 5 / 9.0, 6 / 9.0};
    std::array<Quaternion, kDirections> out{};
    std::size_t count = 0;
    auto add = [&](Quaternion const& v) { out[count++] = multiply(multiply(p, v), q); };
    for (std::size_t axis = 0; axis < 4; ++axis)
        for (double sign : {-1.0, 1.0}) {
            Quaternion v{};
            v[axis] = sign;
            add(v);
        }
    for (int signs = 0; signs < 16; ++signs) {
        Quaternion v{};
        for (std::size_t c = 0; c < 4; ++c) v[c] = (signs >> c & 1) != 0 ? 0.5 : -0.5;
        add(v);
    }
    // The even permutations of (+-phi, +-1, +-1/phi, 0) / 2.
    double const parts[4] = {std::numbers::phi / 2, 0.5, 0.5 / std::numbers::phi, 0};
    for (std::size_t a = 0; a < 4; ++a)
        for (std::size_t b = 0; b < 4; ++b)
            for (std::size_t c = 0; c < 4; ++c) {
                if (a == b || a == c || b == c) continue;
                std::size_t const d = 6 - a - b - c;
                int const swaps = (a > b) + (a > c) + (a > d) + (b > c) + (b > d) + (c > d);
                if (swaps % 2 != 0) continue;
                for (int signs = 0; signs < 8; ++signs) {
                    Quaternion v{};
                    v[a] = (signs & 1) != 0 ? parts[0] : -parts[0];
                    v[b] = (signs & 2) != 0 ? parts[1] : -parts[1];
                    v[c] = (signs & 4) != 0 ? parts[2] : -parts[2];
                    v[d] = parts[3];
                    add(v);
                }
            }
    for (std::size_t i = 0; count < out.size(); ++i) out[count++] = out[i];
    return out;
}

/// The directions, each packed into a word, so that one look-up fetches a direction. A coordinate
/// is the word, shifted to the left by 24, 16, 8 and 0 bits for x, y, z and w, as a signed number.
/// That number has the coordinate's own byte on top and, as a fraction of it, the bytes of the
/// coordinates before; the byte is chosen so that both together come closest to the coordinate. The
/// error of a coordinate is at most 0.4 % of the length.
constexpr std::array<std::uint32_t, kDirections> packDirections() {
    constexpr double kLength = 126;  // in units of a byte; leaves room to round up
    std::array<std::uint32_t, kDirections> out{};
    auto const directions = makeDirections();
    for (std::size_t i = 0; i < out.size(); ++i) {
        double fraction = 0;
        for (std::size_t c = 0; c < 4; ++c) {
            double const wanted = directions[i][c] * kLength - fraction;
            auto const byte = static_cast<std::uint8_t>(
                static_cast<int>(wanted < 0 ? wanted - 0.5 : wanted + 0.5));
            out[i] |= static_cast<std::uint32_t>(byte) << (8 * c);
            fraction = (fraction + byte) / 256;
        }
    }
    return out;
}

inline constexpr std::array<std::uint32_t, kDirections> kPackedDirections = packDirections();

/// The unpacked directions. Their length is at most kDirectionLength.
template <class Real> constexpr std::array<Direction<Real>, kDirections> unpackDirections() {
    std::array<Direction<Real>, kDirections> out{};
    auto const number = [](std::uint32_t word) {
        return static_cast<Real>(static_cast<std::int32_t>(word));
    };
    for (std::size_t i = 0; i < out.size(); ++i) {
        std::uint32_t const word = kPackedDirections[i];
        out[i] = {number(word << 24), number(word << 16), number(word << 8), number(word)};
    }
    return out;
}

template <class Real>
inline constexpr std::array<Direction<Real>, kDirections>
    kDirectionTable = unpackDirections<Real>();

/// The length of the longest direction, rounded up.
template <std::size_t size>
constexpr double longest(std::array<Direction<double>, size> const& directions) {
    double square = 0;
    for (auto const& d : directions) {
        double const s = d.x * d.x + d.y * d.y + d.z * d.z + d.w * d.w;
        square = s > square ? s : square;
    }
    double root = 0x1p31;
    for (int i = 0; i < 8; ++i)
        root = (root + square / root) / 2;  // Newton's iteration, from above
    return root * (1 + 0x1p-40);
}
inline constexpr double kDirectionLength = longest(kDirectionTable<double>);

/// The spatial directions, without a part along the time, of the potential of curl noise. Direction
/// 8 * o + m is direction o of kOctant, which lies in the octant of positive coordinates, mirrored
/// by entry m of kMirrors. Two tables of eight words are used because each fits into a register,
/// where one fast instruction looks up eight points.
///
/// The octant has the six permutations of a triple, and the diagonal twice. The triple is chosen so
/// that the moments of all directions equal those of the sphere up to the seventh degree: its
/// squares are the roots of t^3 - t^2 + 7/45 t - 1/2835, so that the means of x^4 + y^4 + z^4 and
/// of x^2 y^2 z^2 over all directions are 3/5 and 1/105.
///
/// A word has 11 bits for x, 11 for y and 10 for z. A coordinate is the word, shifted to the left
/// by 21, 10 and 0 bits, as a signed number; the coordinates before it are a fraction of its last
/// place. The last bit is always set and never mirrored, so that mirroring all axes gives the
/// exactly opposite direction. The error of a coordinate is at most 0.2 % of the length.
inline constexpr std::size_t kSpatialDirections = 64;
inline constexpr std::array<std::uint32_t, 8> kMirrors = [] {
    std::array<std::uint32_t, 8> out{};
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = ((i & 1) != 0 ? 0x7feu : 0) | ((i & 2) != 0 ? 0x7ffu << 11 : 0) |
                 ((i & 4) != 0 ? 0x3ffu << 22 : 0);
    return out;
}();
inline constexpr std::array<std::uint32_t, 8> kOctant = [] {
    constexpr double a = 0.8989035351791432, b = 0.4355122112847471, c = 0.0479744542888057;
    constexpr double diagonal = 0.5773502691896258;
    constexpr double triples[8][3] = {{a, b, c},
                                      {a, c, b},
                                      {b, a, c},
                                      {b, c, a},
                                      {c, a, b},
                                      {c, b, a},
                                      {diagonal, diagonal, diagonal},
                                      {diagonal, diagonal, diagonal}};
    std::array<std::uint32_t, 8> out{};
    for (std::size_t i = 0; i < out.size(); ++i) {
        auto const& [x, y, z] = triples[i];
        // The bytes are truncated: the fractions below y and z, which depend on how x and y are
        // mirrored, lie anywhere from 0 to 1.
        out[i] = static_cast<std::uint32_t>(x * 512) << 1 | 1 |
                 static_cast<std::uint32_t>(y * 1024) << 11 |
                 static_cast<std::uint32_t>(z * 512) << 22;
    }
    return out;
}();

/// The spatial directions, packed.
inline constexpr std::array<std::uint32_t, kSpatialDirections> kPackedSpatialDirections = [] {
    std::array<std::uint32_t, kSpatialDirections> out{};
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = kOctant[i / 8] ^ kMirrors[i % 8];
    return out;
}();

/// The spatial directions, unpacked, with a w of 0.
template <class Real>
inline constexpr std::array<Direction<Real>, kSpatialDirections> kSpatialDirectionTable = [] {
    std::array<Direction<Real>, kSpatialDirections> out{};
    auto const number = [](std::uint32_t word) {
        return static_cast<Real>(static_cast<std::int32_t>(word));
    };
    for (std::size_t i = 0; i < out.size(); ++i) {
        std::uint32_t const word = kPackedSpatialDirections[i];
        out[i] = {number(word << 21), number(word << 10), number(word), 0};
    }
    return out;
}();
inline constexpr double kSpatialDirectionLength = longest(kSpatialDirectionTable<double>);

}  // namespace Orvane::Math::Simplex
