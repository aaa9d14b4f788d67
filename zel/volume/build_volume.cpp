#include "zel/volume/build_volume.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

#include "zel/batch/evaluate_run.h"
#include "zel/volume/fill_tiles.h"
#include "zel_platform/orvane_geometry_volume/messages.h"
#include "zel_platform/orvane_geometry_volume/sample_places.h"

namespace zel {

using namespace ORV::TileTree3D;

namespace {

constexpr char const* kCaller = "zel::buildVolume";

template <class... Parts> [[noreturn]] void refuse(Parts const&... parts) {
    throw std::invalid_argument(Internal::message(kCaller, ": ", parts...));
}

/// A text such as "(1, 2, 3)".
std::string text(float3 const& p) {
    return Internal::message('(', p.x, ", ", p.y, ", ", p.z, ')');
}

struct Depths {
    int least, most;
};

template <class Traits>
Depths checkedDepths(Box const& box, float voxelSize, BuildOptions const& options) {
    int const deepest = Traits::kMaxDepth, most = options.maxDepth.value_or(deepest);
    if (most < 0 || most > deepest)
        refuse("maxDepth of ", most, ", and a tree has depths 0 to ", deepest);
    if (options.minDepth) {
        if (*options.minDepth < 0 || *options.minDepth > most)
            refuse("minDepth of ", *options.minDepth, ", and the deepest depth is ", most);
        return {*options.minDepth, most};
    }
    constexpr double kPart = 0.125;  // of the longest edge
    double edge = 0;
    for (int a = 0; a < 3; ++a) edge = std::max(edge, double{box.high[a]} - double{box.low[a]});
    int least = 0;
    while (least < most && Traits::tileWidth(least + 1) * double{voxelSize} >= kPart * edge)
        ++least;
    return {least, most};
}

template <class Traits>
Depths check(Box const& box, float voxelSize, float band, BuildOptions const& options) {
    if (!(voxelSize > 0) || std::isinf(voxelSize)) refuse("voxelSize of ", voxelSize);
    if (!(band >= 0) || std::isinf(band)) refuse("band of ", band, " voxels");
    auto const refuseBox = [&](char const* why) {
        refuse("the box from ", text(box.low), " to ", text(box.high), why);
    };
    double const low = double{Traits::kRootCorner} * voxelSize;
    double const high = low + double{Traits::kRootWidth} * voxelSize;
    for (int a = 0; a < 3; ++a) {
        if (!std::isfinite(box.low[a]) || !std::isfinite(box.high[a])) refuseBox(" is not finite");
        if (box.low[a] >= box.high[a]) refuseBox(" is empty");
    }
    for (int a = 0; a < 3; ++a)
        if (box.low[a] < low || box.high[a] > high)
            refuseBox(Internal::message(" is too large: with a voxelSize of ", voxelSize,
                                        " the tree goes from ", low, " to ", high)
                          .c_str());
    return checkedDepths<Traits>(box, voxelSize, options);
}

/// The value and the gradient of a field at the centre of a tile, and the values at its corners,
/// one bit an axis, x in bit 0.
struct Probe {
    float centre;
    float3 gradient;
    std::array<float, 8> corners;
};

/// Whether the points at which |field| < band may reach into a tile: see buildVolume().
bool mayReach(Probe const& probe, double width, double band) {
    constexpr double kMargin = 1.1;
    auto const isFinite = [](float value) { return std::isfinite(value); };
    auto const finite = std::count_if(probe.corners.begin(), probe.corners.end(), isFinite) +
                        (isFinite(probe.centre) ? 1 : 0);
    if (finite < 9) return finite > 0;
    // The plane through the centre whose slope fits the corners best; here the slope times half the
    // width of the tile, so that the offsets of a corner are 1 or -1.
    auto const offset = [](unsigned corner, unsigned axis) {
        return (corner >> axis & 1U) != 0 ? 1.0 : -1.0;
    };
    std::array<double, 3> slope{};
    for (unsigned corner = 0; corner < 8; ++corner)
        for (unsigned axis = 0; axis < 3; ++axis)
            slope[axis] += offset(corner, axis) * double{probe.corners[corner]} / 8;
    double deviation = 0;
    for (unsigned corner = 0; corner < 8; ++corner) {
        double plane = probe.centre;
        for (unsigned axis = 0; axis < 3; ++axis) plane += slope[axis] * offset(corner, axis);
        deviation = std::max(deviation, std::abs(double{probe.corners[corner]} - plane));
    }
    auto const length = [](double x, double y, double z) {  // of floats, so no square overflows
        return std::sqrt(x * x + y * y + z * z);
    };
    double const ofPlane = length(slope[0], slope[1], slope[2]) * std::numbers::sqrt3;
    float3 const& g = probe.gradient;
    double const ofGradient =
        length(double{g.x}, double{g.y}, double{g.z}) * width * std::numbers::sqrt3 / 2;
    double change = ofPlane + deviation;
    if (ofGradient > ofPlane) change = ofGradient + deviation;  // not if it is NaN
    return std::abs(double{probe.centre}) < band + kMargin * change;
}

/// Adds the tiles of a volume to a tree.
template <class Traits> class Refinement {
public:
    Refinement(Container<Traits>& tree, ScalarField const& field, Box const& box, double band,
               detail::VolumeWork& work)
        : m_tree(tree), m_field(field), m_box(box), m_band(band), m_work(work) {}

    void run(Depths const& depths) {
        m_tree.addTile(0, 0, 0, 0);
        for (int depth = 0; depth < depths.most; ++depth) {
            long long const count = m_tree.tileCount(depth);
            std::vector<Children> wanted(static_cast<std::size_t>(count));
            if (depth < depths.least)
                for (long long i = 0; i < count; ++i)
                    wanted[static_cast<std::size_t>(i)] = childrenInBox(m_tree.tile(i, depth));
            else
                m_work.forGroups(count, kParents, kCorners + kChildren,
                                 [&](long long first, long long last) {
                                     judge(depth, first, last, wanted.data());
                                 });
            for (long long i = 0; i < count; ++i) {
                if (i % kParents == 0) m_work.stopIfAsked();
                for (int slot = 0; slot < kChildren; ++slot)
                    if (wanted[static_cast<std::size_t>(i)][static_cast<std::size_t>(slot)])
                        m_tree.addChild({i, depth}, childPosition(slot));
            }
        }
    }

private:
    static constexpr int B = Traits::kBranch;
    static constexpr int kChildren = Traits::kChildCount;
    static constexpr int kEdge = B + 1;  ///< corners of children along an edge of their parent
    static constexpr int kCorners = kEdge * kEdge * kEdge;
    /// The parents whose children are judged together.
    static constexpr int kParents = 1024 / (kCorners + kChildren);

    /// A bit for each child of a tile, by its slot in the child table.
    using Children = std::bitset<Traits::kChildCount>;
    using Tile = TileOf<Traits>;

    static int3 childPosition(int slot) { return {slot % B, slot / B % B, slot / (B * B)}; }

    /// A tile has its low faces, but not its high ones. The box has both.
    Children childrenInBox(Tile const& tile) const {
        Children children;
        double const width = Traits::tileWidth(tile.depth() + 1), size = m_tree.voxelSize();
        for (int slot = 0; slot < kChildren; ++slot) {
            int3 const child = childPosition(slot);
            bool meets = true;
            for (int a = 0; a < 3; ++a) {
                double const low = tile.m_tijk[a] + width * child[a];
                meets = meets && low * size <= m_box.high[a] && (low + width) * size > m_box.low[a];
            }
            children.set(static_cast<std::size_t>(slot), meets);
        }
        return children;
    }

    /// Sets the children that the tiles `first` to `last` - 1 of a depth get.
    void judge(int depth, long long first, long long last, Children* wanted) const {
        std::array<float3, std::size_t{kParents} * kCorners> corners;
        std::array<float3, std::size_t{kParents} * kChildren> centres;
        std::array<float, corners.size()> atCorners;
        std::array<float, centres.size()> atCentres;
        std::array<float3, centres.size()> gradients;
        auto const parents = static_cast<std::size_t>(last - first);
        double const width = Traits::tileWidth(depth + 1);
        for (std::size_t i = 0; i < parents; ++i) {
            Tile const& parent = m_tree.tile(first + static_cast<long long>(i), depth);
            place<kEdge>(parent, width, 0, &corners[i * kCorners]);
            place<B>(parent, width, 0.5, &centres[i * kChildren]);
        }
        detail::evaluateRun(m_field, std::span(corners).first(parents * kCorners), atCorners.data(),
                            nullptr, m_work.batch());
        detail::evaluateRun(m_field, std::span(centres).first(parents * kChildren),
                            atCentres.data(), gradients.data(), m_work.batch());
        for (std::size_t i = 0; i < parents; ++i) {
            long long const tile = first + static_cast<long long>(i);
            Children children = childrenInBox(m_tree.tile(tile, depth));
            for (std::size_t slot = 0; slot < children.size(); ++slot) {
                if (!children[slot]) continue;
                std::size_t const centre = i * kChildren + slot;
                Probe probe{atCentres[centre], gradients[centre], {}};
                int3 const child = childPosition(static_cast<int>(slot));
                for (int c = 0; c < 8; ++c) {
                    int3 const at = child + int3{c & 1, c >> 1 & 1, c >> 2};
                    probe.corners[static_cast<std::size_t>(c)] =
                        atCorners[i * kCorners +
                                  static_cast<std::size_t>(at.x + kEdge * (at.y + kEdge * at.z))];
                }
                children[slot] = mayReach(probe, width * m_tree.voxelSize(), m_band);
            }
            wanted[tile] = children;
        }
    }

    /// Writes the positions of a grid of `N` points along each axis, `width` apart. The first is
    /// `shift` widths from the low corner of the tile.
    template <int N>
    void place(Tile const& tile, double width, double shift, float3* positions) const {
        std::array<std::array<float, N>, 3> coordinates;
        for (std::size_t a = 0; a < 3; ++a)
            for (int i = 0; i < N; ++i)
                coordinates[a][static_cast<std::size_t>(i)] = Internal::toWorld(
                    tile.m_tijk[static_cast<int>(a)] + width * (i + shift), m_tree.voxelSize());
        for (float const z : coordinates[2])
            for (float const y : coordinates[1])
                for (float const x : coordinates[0]) *positions++ = {x, y, z};
    }

    Container<Traits>& m_tree;
    ScalarField const& m_field;
    Box const& m_box;
    double m_band;
    detail::VolumeWork& m_work;
};

template <class Traits, class T>
Quern::Ptr<DataChannel<Traits, T>> makeChannel(VoxelTopology<Traits> const& topology,
                                               T const& outside, std::stop_token const& stop) {
    int const deepest = Traits::kMaxDepth;
    auto channel = Quern::makePtr<DataChannel<Traits, T>>(Quern::String(), &outside, 0, true, true,
                                                          0, deepest);
    channel->updateTo(topology.container(), [&] {
        if (stop.stop_requested()) throw Stopped();
    });
    return channel;
}

template <class T, class Traits, class U>
Volume<Traits, T> buildOver(Volume<Traits, U> const& tree, detail::InterfaceOf<T> const& field,
                            T const& outside, FillOptions const& options) {
    if (!tree.container || !tree.topology)
        refuse("the volume has no ", tree.container ? "topology" : "tree");
    if (&tree.topology->container() != tree.container.get())
        refuse("the topology is that of another tree");
    auto channel = makeChannel<Traits, T>(*tree.topology, outside, options.stop);
    fillChannel(*channel, *tree.topology, field, options);
    return {tree.container, tree.topology, std::move(channel)};
}

}  // namespace

template <class Traits>
Volume<Traits, float> buildVolume(ScalarField const& field, Box const& box, float voxelSize,
                                  float band, BuildOptions const& options) {
    Depths const depths = check<Traits>(box, voxelSize, band, options);
    Volume<Traits, float> volume;
    volume.container = Quern::makePtr<Container<Traits>>(voxelSize, options.maxTiles);
    volume.topology = Quern::makePtr<VoxelTopology<Traits>>(volume.container);
    detail::VolumeWork work(kCaller, options);
    work.run(field, [&] {
        Refinement<Traits>(*volume.container, field, box, double{band} * double{voxelSize}, work)
            .run(depths);
        volume.channel =
            makeChannel<Traits, float>(*volume.topology, options.outside, options.stop);
        detail::fillTiles<Traits, float>(*volume.channel, *volume.topology, field, work);
    });
    return volume;
}

template <class Traits, class T>
Volume<Traits, float> buildVolume(Volume<Traits, T> const& tree, ScalarField const& field,
                                  float outside, FillOptions const& options) {
    return buildOver<float>(tree, field, outside, options);
}

template <class Traits, class T>
Volume<Traits, float3> buildVolume(Volume<Traits, T> const& tree, VectorField const& field,
                                   float3 outside, FillOptions const& options) {
    return buildOver<float3>(tree, field, outside, options);
}

ZEL_DETAIL_BUILD_VOLUMES();

}  // namespace zel
