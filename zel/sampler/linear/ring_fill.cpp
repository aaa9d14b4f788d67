#include "zel/sampler/linear/ring_fill.h"

#include <algorithm>
#include <bit>

namespace ORV::TileTree3D {

namespace {

/// A direction from a tile to a part of its ring: -1, 0 or 1 along each axis.
using Direction = std::array<int, 3>;

bool onFace(VoxelOffsetType type, unsigned axis) {
    return (type >> axis & 1) != 0;
}

NeighborDirection neighborOf(Direction const& d) {
    return neighborDirection(d[0], d[1], d[2]);
}

template <class Traits> constexpr int kWidth = Traits::kSamples + 2;

/// The offset of a sample of a ring tile from its corner.
template <class Traits> constexpr int flatRing(int i, int j, int k) {
    return i + 1 + kWidth<Traits> * (j + 1 + kWidth<Traits> * (k + 1));
}
template <class Traits> constexpr int flatOwn(int i, int j, int k) {
    return i + Traits::kSamples * (j + Traits::kSamples * k);
}

template <class Traits, class T> void copyOwn(OwnData<Traits, T> const& own, T* ring) {
    constexpr int W = Traits::kSamples;
    for (int k = 0; k < W; ++k)
        for (int j = 0; j < W; ++j)
            std::copy_n(own.data() + flatOwn<Traits>(0, j, k), W, ring + flatRing<Traits>(0, j, k));
}

/// Calls `action(index in the ring tile, number)` for all samples of a part of the ring, in turn.
template <class Traits, class Action> void forSamples(Direction const& d, Action const& action) {
    constexpr int W = Traits::kSamples;
    auto const first = [&](std::size_t a) { return d[a] == 0 ? 0 : d[a] < 0 ? -1 : W; };
    auto const end = [&](std::size_t a) { return d[a] == 0 ? W : d[a] < 0 ? 0 : W + 1; };
    std::size_t number = 0;
    for (int z = first(2); z < end(2); ++z)
        for (int y = first(1); y < end(1); ++y)
            for (int x = first(0); x < end(0); ++x) action(int3{x, y, z}, number++);
}

/// The positions of a child's samples along one axis, among those of its parent.
template <class Traits> class ParentAxis {
public:
    static constexpr int kSpan = Traits::kBranch == 2 ? 2 : 1;  ///< parent voxels under a child
    static constexpr int kMostSamples = kSpan + 2;

    ParentAxis(int child, bool onFace) : m_base(child * kSpan), m_onFace(onFace) {}

    /// The parent samples from which those of the child are interpolated; or with `d`, a side of
    /// the child, those around its face there.
    int first(int d = 0) const { return (d > 0 ? m_base + kSpan : m_base) - (m_onFace ? 0 : 1); }
    int count(int d = 0) const { return (d != 0 ? 1 : kSpan + 1) + (m_onFace ? 0 : 1); }

    /// Sample `s` of the child, from `samples` of the parent that are `step` apart.
    template <class T> T interpolate(T const* samples, int step, int s) const {
        // Counted from the first parent sample, in halves of a voxel of the child. With samples at
        // the middle of voxels, a sample that falls on one of the parent has t = 1.
        constexpr int kParts = 2 * Traits::kSamples / kSpan;
        int const position = 2 * s + (m_onFace ? 0 : 1 + kParts / 2);
        int const below = (m_onFace ? position : position - 1) / kParts;
        float const t = static_cast<float>(position - below * kParts) / static_cast<float>(kParts);
        return (1.0F - t) * samples[below * step] + t * samples[(below + 1) * step];
    }

private:
    int m_base;
    bool m_onFace;
};

/// The fill of one ring tile next to a parent.
template <class Traits, class T> class RingFill {
public:
    RingFill(VoxelOffsetType type, T const* parent, int3 const& child,
             NeighborData<Traits, T> const& neighbors, T* ring)
        : m_type(type),
          m_parent(parent), m_axes{axis(0, child.x), axis(1, child.y), axis(2, child.z)},
          m_neighbors(neighbors), m_ring(ring) {}

    void run(Direction const& d) const {
        if (surrounded(d))
            copy(d);
        else if (!extrapolates(d))
            continueParent(d);
        else if ((d[0] != 0) + (d[1] != 0) + (d[2] != 0) == 1)
            replaceFace(d);
        else
            extrapolate(d);
    }

private:
    static constexpr int W = Traits::kSamples;
    static constexpr std::array<int, 3> kSteps{1, kWidth<Traits>, kWidth<Traits>* kWidth<Traits>};
    using Layer = std::array<T, static_cast<std::size_t>(W) * W>;

    ParentAxis<Traits> axis(unsigned number, int child) const {
        return {child, onFace(m_type, number)};
    }

    /// Whether the tile in a direction has samples, and so do all tiles between it and this one.
    bool surrounded(Direction const& d) const {
        for (int part = 1; part < 8; ++part) {
            Direction const towards{part & 1 ? d[0] : 0, part & 2 ? d[1] : 0, part & 4 ? d[2] : 0};
            NeighborDirection const neighbor = neighborOf(towards);
            if (neighbor != 13 && !m_neighbors[static_cast<std::size_t>(neighbor)]) return false;
        }
        return true;
    }
    bool extrapolates(Direction const& d) const {
        return (d[0] < 0 && onFace(m_type, 0)) || (d[1] < 0 && onFace(m_type, 1)) ||
               (d[2] < 0 && onFace(m_type, 2));
    }

    /// The step in the ring that leads inward from an element along some axes, one bit an axis.
    static int inward(Direction const& d, int axes) {
        int step = 0;
        for (std::size_t a = 0; a < 3; ++a)
            if (axes >> a & 1) step -= d[a] * kSteps[a];
        return step;
    }
    T& at(int3 const& p) const { return m_ring[flatRing<Traits>(p.x, p.y, p.z)]; }

    void copy(Direction const& d) const {
        auto const& from = m_neighbors[static_cast<std::size_t>(neighborOf(d))];
        forSamples<Traits>(d, [&](int3 const& p, std::size_t) {
            at(p) = from(p.x - d[0] * W, p.y - d[1] * W, p.z - d[2] * W);
        });
    }

    void replaceFace(Direction const& d) const {
        Layer const coarse = parentSums(d);
        int const step = inward(d, 7);
        forSamples<Traits>(d, [&](int3 const& p, std::size_t number) {
            T* const sample = &at(p);
            sample[step] = coarse[number];
            sample[0] = 2.0F * sample[step] - sample[2 * step];
        });
    }

    void extrapolate(Direction const& d) const {
        int const step = inward(d, 7);
        forSamples<Traits>(d, [&](int3 const& p, std::size_t) {
            T* const sample = &at(p);
            sample[0] = 2.0F * sample[step] - sample[2 * step];
        });
    }

    /// Chooses the ring sample so that the mean of the fine samples around a point of the face,
    /// edge or corner is that of the coarse samples around the point.
    void continueParent(Direction const& d) const {
        Layer const coarse = parentSums(d);
        int middle = 0;  // the axes along which the cell extends
        for (unsigned a = 0; a < 3; ++a)
            if (d[a] != 0 && !onFace(m_type, a)) middle |= 1 << a;
        forSamples<Traits>(d, [&](int3 const& p, std::size_t number) {
            T* const sample = &at(p);
            T sum = coarse[number];
            for (int axes = 1; axes <= middle; ++axes)
                if ((axes & ~middle) == 0) sum = sum - sample[inward(d, axes)];
            sample[0] = sum;
        });
    }

    /// The sums of the parent's samples around an element, interpolated along the free axes at the
    /// positions of the child's samples.
    Layer parentSums(Direction const& d) const {
        constexpr int kMost = ParentAxis<Traits>::kMostSamples;
        std::array<T, kMost * kMost> sums;
        std::array<int, 3> first, count, step;
        std::array<std::size_t, 2> free{};
        int freeAxes = 0, samples = 1;
        for (std::size_t a = 0; a < 3; ++a) {
            first[a] = m_axes[a].first(d[a]);
            count[a] = m_axes[a].count(d[a]);
            step[a] = d[a] == 0 ? samples : 0;
            if (d[a] != 0) continue;
            samples *= count[a];
            free[static_cast<std::size_t>(freeAxes++)] = a;
        }
        for (int z = 0; z < count[2]; ++z)
            for (int y = 0; y < count[1]; ++y)
                for (int x = 0; x < count[0]; ++x) {
                    T const& p =
                        m_parent[flatRing<Traits>(first[0] + x, first[1] + y, first[2] + z)];
                    int const slot = x * step[0] + y * step[1] + z * step[2];
                    T& sum = sums.data()[slot];
                    bool const begins =
                        (d[0] == 0 || x == 0) && (d[1] == 0 || y == 0) && (d[2] == 0 || z == 0);
                    sum = begins ? p : sum + p;
                }

        Layer result;
        if (freeAxes == 0) {
            result[0] = sums[0];
        } else if (freeAxes == 1) {
            for (int s = 0; s < W; ++s)
                result[static_cast<std::size_t>(s)] =
                    m_axes[free[0]].interpolate(sums.data(), 1, s);
        } else {
            std::array<T, static_cast<std::size_t>(kMost) * W> rows;
            for (int row = 0; row < count[free[1]]; ++row)
                for (int s = 0; s < W; ++s)
                    rows.data()[s + W * row] =
                        m_axes[free[0]].interpolate(sums.data() + row * count[free[0]], 1, s);
            for (int t = 0; t < W; ++t)
                for (int s = 0; s < W; ++s)
                    result.data()[s + W * t] = m_axes[free[1]].interpolate(rows.data() + s, W, t);
        }
        return result;
    }

    VoxelOffsetType m_type;
    T const* m_parent;
    std::array<ParentAxis<Traits>, 3> m_axes;
    NeighborData<Traits, T> const& m_neighbors;
    T* m_ring;
};

// Faces, edges and corners, in an order in which each element needs only those before it.
constexpr std::array<Direction, 26> kElements{{
    {-1, 0, 0},  {1, 0, 0},   {0, -1, 0}, {0, 1, 0},   {0, 0, -1},   {0, 0, 1},   {-1, -1, 0},
    {1, -1, 0},  {-1, 1, 0},  {1, 1, 0},  {-1, 0, -1}, {1, 0, -1},   {-1, 0, 1},  {1, 0, 1},
    {0, -1, -1}, {0, 1, -1},  {0, -1, 1}, {0, 1, 1},   {-1, -1, -1}, {1, -1, -1}, {-1, 1, -1},
    {1, 1, -1},  {-1, -1, 1}, {1, -1, 1}, {-1, 1, 1},  {1, 1, 1},
}};

}  // namespace

template <class Traits, class T>
void fillRingTile(VoxelOffsetType in_offsetType, RingTile<Traits, T> const& in_parent, int in_ci,
                  int in_cj, int in_ck, OwnData<Traits, T> const& in_own,
                  NeighborData<Traits, T> const& in_neighbors, RingTile<Traits, T>& io_ring) {
    copyOwn<Traits, T>(in_own, io_ring.data());
    RingFill<Traits, T> const fill(in_offsetType, in_parent.data(), {in_ci, in_cj, in_ck},
                                   in_neighbors, io_ring.data());
    for (Direction const& element : kElements) fill.run(element);
}

template <class Traits, class T>
void fillRingTileFromDefault(VoxelOffsetType in_offsetType, T const& in_default,
                             OwnData<Traits, T> const& in_own, RingTile<Traits, T>& io_ring) {
    T const d = in_default, twice = 2.0F * d;
    T* const ring = io_ring.data();
    copyOwn<Traits, T>(in_own, ring);
    for (Direction const& element : kElements) {
        unsigned axes = 0;  // the involved ones, one bit an axis
        for (unsigned a = 0; a < 3; ++a) axes |= element[a] != 0 ? 1U << a : 0U;
        auto const type = static_cast<unsigned>(in_offsetType);
        int const step =
            -(element[0] + kWidth<Traits> * (element[1] + kWidth<Traits> * element[2]));
        int const count = std::popcount(axes);
        forSamples<Traits>(element, [&](int3 const& p, std::size_t) {
            T* const sample = ring + flatRing<Traits>(p.x, p.y, p.z);
            if ((type & axes) != 0) {
                sample[0] = d;
                if (count == 1 && p[std::countr_zero(axes)] < 0) sample[step] = d;
            } else {
                sample[0] = count == 2 ? sample[step] : twice - sample[step];
            }
        });
    }
}

ZEL_SAMPLER_INSTANCES(ZEL_DETAIL_RING_FILL, );

}  // namespace ORV::TileTree3D
