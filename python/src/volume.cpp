#include "volume.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <utility>

#include "arrays.h"
#include "errors.h"
#include "field.h"
#include "interrupt.h"
#include "object_types.h"
#include "values.h"

namespace zel::python {

namespace {

using ORV::TileTree3D::int3;
using ORV::TileTree3D::TreeIndex;
using Traits = BinaryTraits;

constexpr int kDeepest = Traits::kMaxDepth;
constexpr int kTileWidth = Traits::kSamples;

std::int64_t floorDivide(std::int64_t a, std::int64_t b) {
    return a / b - (a % b < 0 ? 1 : 0);
}

template <class T>
Volume::Samples<T> makeSamples(std::string const& name, T const& outside,
                               Volume::Topology const& topology,
                               std::function<void()> const& pause) {
    auto samples = Quern::makePtr<ORV::TileTree3D::DataChannel<Traits, T>>(name, &outside, 0, false,
                                                                           true, 0, kDeepest);
    samples->updateTo(topology.container(), pause);
    return samples;
}

/// Calls `use(tile, samples)` for the tiles of a depth. Throws Stopped.
template <class T, class Use>
void forTiles(Volume::Tree const& tree, Volume::Samples<T> const& samples, int depth,
              std::stop_token const& stop, Use const& use) {
    for (long long i = 0; i < tree.tileCount(depth); ++i) {
        if (stop.stop_requested()) throw Stopped();
        use(tree.tile(i, depth), samples->samples(TreeIndex{i, depth}));
    }
}

// Dense arrays.

using Strides = std::array<py::ssize_t, 3>;

/// The voxels of a depth that cover an extent.
Volume::Extent atDepth(Volume::Extent const& extent, int depth) {
    std::int64_t const width = Traits::voxelWidth(depth);
    Volume::Extent found;
    for (int axis = 0; axis < 3; ++axis) {
        std::int64_t const low = floorDivide(extent.low[axis], width);
        std::int64_t const high =
            -floorDivide(-(std::int64_t{extent.low[axis]} + extent.size[axis]), width);
        found.low[axis] = static_cast<std::int32_t>(low);
        found.size[axis] = static_cast<std::int32_t>(high - low);
    }
    return found;
}

/// Calls `use(sample, place)` for the samples of a tile that lie in an extent of voxels of the
/// tile's depth. `place` is that of the voxel in an array of the extent with these strides.
template <class Tile, class T, class Use>
void forSamplesIn(Tile const& tile, T* samples, Volume::Extent const& extent,
                  Strides const& strides, Use const& use) {
    std::array<std::int64_t, 3> first{};
    std::array<int, 3> low{}, high{};
    for (int axis = 0; axis < 3; ++axis) {
        auto const a = static_cast<std::size_t>(axis);
        first[a] = floorDivide(tile.tijk()[axis], tile.voxelDataWidth()) - extent.low[axis];
        low[a] = static_cast<int>(std::clamp<std::int64_t>(-first[a], 0, kTileWidth));
        high[a] =
            static_cast<int>(std::clamp<std::int64_t>(extent.size[axis] - first[a], 0, kTileWidth));
    }
    for (int i = low[0]; i < high[0]; ++i)
        for (int j = low[1]; j < high[1]; ++j)
            for (int k = low[2]; k < high[2]; ++k) {
                py::ssize_t const place = (first[0] + i) * strides[0] +
                                          (first[1] + j) * strides[1] + (first[2] + k) * strides[2];
                use(samples[i + kTileWidth * (j + kTileWidth * k)], place);
            }
}

/// Adds a channel with the samples of an array of float32, which is read in place.
template <class T>
void fillFrom(Volume& volume, std::string const& name, T const& outside, py::array const& array) {
    auto const* const values = static_cast<float const*>(array.data());
    auto const strideOf = [&](py::ssize_t axis) {
        return array.strides(axis) / static_cast<py::ssize_t>(sizeof(float));
    };
    Strides const strides{strideOf(0), strideOf(1), strideOf(2)};
    py::ssize_t const step = !kIsNumber<T> ? strideOf(3) : 0;
    interruptibly([&](std::stop_token const& stop) {
        auto const pause = [&] {
            if (stop.stop_requested()) throw Stopped();
        };
        auto const& [low, size] = volume.extent;
        std::array<std::int32_t, 3> first{}, last{};
        // One voxel more on each side, so that the values around the array are `outside`.
        for (int axis = 0; axis < 3; ++axis) {
            auto const a = static_cast<std::size_t>(axis);
            first[a] =
                static_cast<std::int32_t>(floorDivide(std::int64_t{low[axis]} - 1, kTileWidth));
            last[a] = static_cast<std::int32_t>(
                floorDivide(std::int64_t{low[axis]} + size[axis], kTileWidth));
        }
        for (std::int32_t i = first[0]; i <= last[0]; ++i)
            for (std::int32_t j = first[1]; j <= last[1]; ++j) {
                pause();
                for (std::int32_t k = first[2]; k <= last[2]; ++k)
                    volume.tree->addTile(i * kTileWidth, j * kTileWidth, k * kTileWidth, kDeepest);
            }
        auto const samples = makeSamples(name, outside, *volume.topology, pause);
        forTiles<T>(*volume.tree, samples, kDeepest, stop, [&](auto const& tile, T* data) {
            forSamplesIn(tile, data, volume.extent, strides, [&](T& sample, py::ssize_t place) {
                float const* const value = values + place;
                if constexpr (!kIsNumber<T>)
                    sample = {value[0], value[step], value[2 * step]};
                else
                    sample = *value;
            });
        });
        ORV::TileTree3D::restrictChannel(*samples, *volume.topology, pause);
        volume.channels.push_back({name, samples});
    });
}

float toVoxelSize(py::handle object, std::string const& where) {
    float const size = toFloat(object, where + ": voxel_size");
    if (!(size > 0) || std::isinf(size))
        throw py::value_error(
            where + ": voxel_size: wanted a number above 0 in the range of float32, got " +
            shown(object));
    return size;
}

/// An integer from 0 to `most`.
int toCount(py::handle object, int most, std::string const& where) {
    return static_cast<int>(toInteger(object, 0, most, where));
}

/// The value outside a volume; 0 for None.
template <class T> T toOutside(py::handle object, std::string const& where) {
    if (object.is_none()) return T{};
    if constexpr (!kIsNumber<T>)
        return toVector(object, where + ": outside");
    else
        return toFloat(object, where + ": outside");
}

Volume makeVolume(float voxelSize, int offsetType) {
    Volume made;
    made.tree = Quern::makePtr<Volume::Tree>(voxelSize);
    made.topology = Quern::makePtr<Volume::Topology>(made.tree, offsetType);
    return made;
}

py::object fromNumpy(py::object const& given, py::object const& voxelSize, py::object const& origin,
                     py::object const& givenName, py::object const& outside) {
    std::string const where = "zel.Volume.from_numpy";
    std::string const name = toName(givenName, where + ": name");
    py::array const array = floatsInPlace(given, where + ": array");
    bool const isVector = array.ndim() == 4 && array.shape(3) == 3;
    if (!isVector && array.ndim() != 3)
        throw py::value_error(where +
                              ": wanted an array of shape (nx, ny, nz) or (nx, ny, nz, 3), got " +
                              shapeText(array));
    if (array.size() == 0)
        throw py::value_error(where + ": the array is empty: its shape is " + shapeText(array));
    float const size = toVoxelSize(voxelSize, where);
    // In float64: of float32, the quotient would have too few digits far from the origin.
    std::array<double, 3> const corner = toDoubles(origin, where + ": origin");
    double const width = toDouble(voxelSize, where + ": voxel_size");

    Volume::Extent extent;
    int offsetType = 0;
    for (int axis = 0; axis < 3; ++axis) {
        double const voxels = corner[static_cast<std::size_t>(axis)] / width;
        double const rounded = std::round(2 * voxels) / 2;
        constexpr double kMost = Traits::kRootWidth / 2.0 - 8;
        if (!(std::abs(voxels) < kMost) ||
            !(rounded + static_cast<double>(array.shape(axis)) < kMost))
            throw py::value_error(where +
                                  ": the array reaches beyond the volume, which is 2**30 voxels "
                                  "wide around the origin");
        // The rounding errors of an origin and a size of float32, far from the nearest half still.
        double const tolerance = std::clamp(std::abs(voxels) * 0x1p-23, 1e-3, 0.1);
        if (std::abs(voxels - rounded) > tolerance)
            throw py::value_error(
                where + ": wanted an origin at multiples of half the voxel_size, got " +
                shown(origin) + "; zel.translate moves a field of the volume by any distance");
        extent.low[axis] = static_cast<std::int32_t>(std::floor(rounded));
        extent.size[axis] = static_cast<std::int32_t>(array.shape(axis));
        if (rounded == std::floor(rounded)) offsetType |= 1 << axis;
    }
    Volume made = makeVolume(size, offsetType);
    made.extent = extent;
    if (isVector)
        fillFrom(made, name, toOutside<float3>(outside, where), array);
    else
        fillFrom(made, name, toOutside<float>(outside, where), array);
    return newObject(std::move(made));
}

/// The finest voxels that the tiles of the deepest depth cover.
Volume::Extent extentOf(Volume::Tree const& tree) {
    int const depth = tree.depth();
    int3 low{std::numeric_limits<std::int32_t>::max(), std::numeric_limits<std::int32_t>::max(),
             std::numeric_limits<std::int32_t>::max()};
    int3 high{std::numeric_limits<std::int32_t>::min(), std::numeric_limits<std::int32_t>::min(),
              std::numeric_limits<std::int32_t>::min()};
    for (long long i = 0; i < tree.tileCount(depth); ++i) {
        auto const& tile = tree.tile(i, depth);
        for (int axis = 0; axis < 3; ++axis) {
            low[axis] = std::min(low[axis], tile.tijk()[axis]);
            high[axis] = std::max(high[axis], tile.tijk()[axis] + tile.tileVoxelWidth());
        }
    }
    return {low, high + -low};
}

py::object fromField(py::object const& field, py::object const& box, py::object const& voxelSize,
                     py::object const& band, py::object const& givenName, py::object const& outside,
                     py::object const& minDepth, py::object const& maxDepth) {
    std::string const where = "zel.Volume.from_field";
    std::string const name = toName(givenName, where + ": name");
    if (!isScalarField(field))
        throw py::type_error(where + ": wanted a scalar field, got " + shown(field) +
                             "; with_field() adds channels of vectors to a volume");
    checkLevels(field);
    auto const corners = py::reinterpret_steal<py::object>(PySequence_Tuple(box.ptr()));
    if (!corners) {
        PyErr_Clear();
        throw py::type_error(where + ": box: wanted (low, high), got " + shown(box));
    }
    auto const both = py::reinterpret_borrow<py::tuple>(corners);
    if (both.size() != 2)
        throw py::type_error(where + ": box: wanted (low, high), got " + shown(box));
    Box const region{toVector(both[0], where + ": box[0]"), toVector(both[1], where + ": box[1]")};
    float const size = toVoxelSize(voxelSize, where);
    float const width = toFloat(band, where + ": band");
    BuildOptions options;
    if (!minDepth.is_none()) options.minDepth = toCount(minDepth, kDeepest, where + ": min_depth");
    if (!maxDepth.is_none()) options.maxDepth = toCount(maxDepth, kDeepest, where + ": max_depth");
    options.outside = toFloat(outside, where + ": outside");
    auto const root = std::get<ScalarPtr>(fieldOf(field).tree);
    Volume made;
    interruptibly([&](std::stop_token const& stop) {
        options.stop = stop;
        auto const built = buildVolume<Traits>(*root, region, size, width, options);
        made.tree = built.container;
        made.topology = built.topology;
        made.channels.push_back({name, built.channel});
        made.extent = extentOf(*made.tree);
    });
    return newObject(std::move(made));
}

template <class T>
ORV::TileTree3D::Volume<Traits, T> partOf(Volume const& volume, Volume::Samples<T> const& samples) {
    return {volume.tree, volume.topology, samples};
}

py::object withField(Volume const& self, py::object const& givenName, py::object const& field,
                     py::object const& outside) {
    std::string const where = "zel.Volume.with_field";
    std::string const name = toName(givenName, where + ": name");
    if (!isField(field))
        throw py::type_error(where + ": field: wanted a field, got " + shown(field));
    Tree const tree = fieldOf(field).tree;
    checkLevels(field);
    if (std::any_of(self.channels.begin(), self.channels.end(),
                    [&](Volume::Channel const& one) { return one.name == name; }))
        throw py::value_error(where + ": there is a channel '" + name + "'");
    Volume made = self;
    auto const build = [&](auto const& root, auto const& around) {
        interruptibly([&](std::stop_token const& stop) {
            FillOptions options;
            options.stop = stop;
            std::visit(
                [&](auto const& samples) {
                    made.channels.push_back(
                        {name, buildVolume(partOf(self, samples), *root, around, options).channel});
                },
                self.channels.front().samples);
        });
    };
    if (auto const* const scalar = std::get_if<ScalarPtr>(&tree))
        build(*scalar, toOutside<float>(outside, where));
    else
        build(std::get<VectorPtr>(tree), toOutside<float3>(outside, where));
    return newObject(std::move(made));
}

int toDepth(Volume const& self, py::handle depth) {
    int const deepest = self.tree->depth();
    return depth.is_none() ? deepest : toCount(depth, deepest, "zel.Volume: depth");
}

py::array toNumpy(Volume const& self, py::object const& depthOrNone, py::object const& name) {
    int const depth = toDepth(self, depthOrNone);
    Volume::Channel const& channel = self.channel(name);
    Volume::Extent const extent = atDepth(self.extent, depth);
    return std::visit(
        [&]<class T>(Quern::Ptr<ORV::TileTree3D::DataChannel<Traits, T>> const& samples) {
            Shape shape{extent.size.x, extent.size.y, extent.size.z};
            double bytes = sizeof(T);
            for (py::ssize_t const length : shape) bytes *= static_cast<double>(length);
            if (bytes > 9e18) throw std::bad_alloc();
            if (!kIsNumber<T>) shape.push_back(kNumbers<T>);
            py::array array = newFloats(shape);
            auto* const values = static_cast<T*>(array.mutable_data());
            interruptibly([&](std::stop_token const& stop) {
                constexpr py::ssize_t kRun = 1 << 20;
                py::ssize_t const count = array.size() / kNumbers<T>;
                for (py::ssize_t at = 0; at < count && !stop.stop_requested(); at += kRun)
                    std::fill_n(values + at, std::min(kRun, count - at), samples->defaultValue());
                Strides const strides{py::ssize_t{extent.size.y} * extent.size.z, extent.size.z, 1};
                forTiles<T>(*self.tree, samples, depth, stop, [&](auto const& tile, T* data) {
                    forSamplesIn(
                        tile, data, extent, strides,
                        [&](T const& sample, py::ssize_t place) { values[place] = sample; });
                });
            });
            return array;
        },
        channel.samples);
}

/// The place of the first voxel's sample in to_numpy() of a depth.
py::tuple originOf(Volume const& self, py::object const& depthOrNone) {
    int const depth = toDepth(self, depthOrNone);
    Volume::Extent const extent = atDepth(self.extent, depth);
    double const width = double{self.tree->voxelSize()} * Traits::voxelWidth(depth);
    auto const place = [&](int axis) {
        return (extent.low[axis] + double{self.topology->offset()[axis]}) * width;
    };
    return py::make_tuple(place(0), place(1), place(2));
}

// Pickling: the low corners of the tiles, and the samples, depth by depth.

py::tuple stateOf(Volume const& self) {
    py::list corners, channels;
    for (int depth = 0; depth <= self.tree->depth(); ++depth) {
        long long const count = self.tree->tileCount(depth);
        py::array_t<std::int32_t> array({py::ssize_t{count}, py::ssize_t{3}});
        for (long long i = 0; i < count; ++i)
            for (int axis = 0; axis < 3; ++axis)
                array.mutable_at(i, axis) = self.tree->tile(i, depth).tijk()[axis];
        corners.append(array);
    }
    for (Volume::Channel const& channel : self.channels)
        std::visit(
            [&]<class T>(Quern::Ptr<ORV::TileTree3D::DataChannel<Traits, T>> const& samples) {
                py::list depths;
                for (int depth = 0; depth <= self.tree->depth(); ++depth) {
                    Shape shape{self.tree->tileCount(depth), Traits::kSampleCount};
                    if (!kIsNumber<T>) shape.push_back(kNumbers<T>);
                    py::array array = newFloats(shape);
                    if (array.size() > 0)
                        std::memcpy(array.mutable_data(), samples->samples(TreeIndex{0, depth}),
                                    static_cast<std::size_t>(array.nbytes()));
                    depths.append(array);
                }
                py::object outside;
                if constexpr (!kIsNumber<T>)
                    outside = fromVector(samples->defaultValue());
                else
                    outside = py::float_(samples->defaultValue());
                channels.append(py::make_tuple(channel.name, outside, depths));
            },
            channel.samples);
    auto const& [low, size] = self.extent;
    return py::make_tuple(self.tree->voxelSize(), self.topology->offsetType(),
                          py::make_tuple(low.x, low.y, low.z),
                          py::make_tuple(size.x, size.y, size.z), corners, channels);
}

template <class T>
void restore(Volume& volume, std::string const& name, T const& outside,
             py::sequence const& depths) {
    auto const samples = makeSamples(name, outside, *volume.topology, handleSignals);
    for (int depth = 0; depth <= volume.tree->depth(); ++depth) {
        py::array const array =
            copyOf(floatsOf(py::object(depths[static_cast<std::size_t>(depth)]), "zel.Volume"));
        long long const count = volume.tree->tileCount(depth) * Traits::kSampleCount;
        if (array.size() != count * kNumbers<T>)
            throw py::value_error("zel.Volume: the state has samples for other tiles");
        if (count > 0)
            std::memcpy(static_cast<void*>(samples->samples(TreeIndex{0, depth})), array.data(),
                        static_cast<std::size_t>(array.nbytes()));
    }
    volume.channels.push_back({name, samples});
}

int3 toInts(py::handle object) {
    auto const v = object.cast<std::array<std::int32_t, 3>>();
    return {v[0], v[1], v[2]};
}

py::object fromState(py::tuple const& state) {
    if (state.size() != 6) throw py::value_error("zel.Volume: the state has no 6 parts");
    Volume made = makeVolume(state[0].cast<float>(), state[1].cast<int>());
    made.extent = {toInts(state[2]), toInts(state[3])};
    constexpr int kFlags = int{py::array::forcecast} | int{py::detail::npy_api::NPY_ARRAY_ALIGNED_};
    using Corners = py::array_t<std::int32_t, kFlags>;
    int depth = 0;
    for (py::handle const corners : state[4]) {
        auto const array = corners.cast<Corners>();
        if (array.ndim() != 2 || array.shape(1) != 3)
            throw py::value_error("zel.Volume: the state has no corners");
        auto const corner = array.unchecked<2>();
        constexpr py::ssize_t kPart = 1 << 14;
        for (py::ssize_t i = 0; i < array.shape(0); ++i) {
            if (i % kPart == 0) handleSignals();
            if (made.tree->addTile(corner(i, 0), corner(i, 1), corner(i, 2), depth).tile != i)
                throw py::value_error("zel.Volume: the state has tiles in another order");
        }
        ++depth;
    }
    for (py::handle const one : state[5]) {
        auto const channel = one.cast<py::tuple>();
        auto const name = channel[0].cast<std::string>();
        py::sequence const depths = channel[2];
        if (static_cast<int>(depths.size()) != made.tree->depth() + 1)
            throw py::value_error("zel.Volume: the state has samples for other depths");
        if (isTriple(py::object(channel[1])))
            restore<float3>(made, name, toVector(py::object(channel[1]), name), depths);
        else
            restore<float>(made, name, channel[1].cast<float>(), depths);
    }
    made.object();  // throws if the parts do not fit
    return newObject(std::move(made));
}

std::string represent(Volume const& self) {
    std::string names;
    for (Volume::Channel const& one : self.channels)
        names += (names.empty() ? "'" : ", '") + one.name + '\'';
    auto const& size = self.extent.size;
    return "<zel.Volume " + names + ", " + std::to_string(self.tree->tileCount(-1)) +
           " tiles, finest voxels " + std::to_string(size.x) + " x " + std::to_string(size.y) +
           " x " + std::to_string(size.z) + " of " +
           std::string(py::str(py::float_(self.tree->voxelSize()))) + '>';
}

}  // namespace

Quern::Ptr<ORV::Object> Volume::object() const {
    std::vector<NamedVolume> all;
    for (Channel const& one : channels)
        std::visit([&](auto const& samples) { all.emplace_back(one.name, partOf(*this, samples)); },
                   one.samples);
    return toVolumeObject(all);
}

Volume::Channel const& Volume::channel(py::handle name) const {
    if (name.is_none() && channels.size() == 1) return channels.front();
    std::string names;
    for (Channel const& one : channels) {
        if (py::str(one.name).equal(name)) return one;
        names += (names.empty() ? "" : ", ") + one.name;
    }
    throw py::key_error("zel.Volume: no channel " + shown(name) + "; there are " + names);
}

void addVolume(py::module_& module) {
    using namespace py::literals;
    ObjectType<Volume> type(
        module, "zel.Volume",
        "Samples in voxels, in a tree of tiles that is fine where it has to be. A volume never\n"
        "changes, and is shared by the fields that are bound to it.",
        [](PyTypeObject*, PyObject*, PyObject*) {
            return refuseNew("zel.Volume: volumes are made by zel.Volume.from_numpy() and "
                             "zel.Volume.from_field()");
        });
    type.staticMethod(
        "from_numpy", fromNumpy,
        "A volume of an array of shape (nx, ny, nz) or (nx, ny, nz, 3), which is copied.\n"
        "The sample [i, j, k] is at origin + (i, j, k) * voxel_size; the origin is a\n"
        "multiple of half the voxel_size. `name` is that of the channel by which fields\n"
        "find it. Around the array the value is `outside`, 0 by default. Raises TypeError or\n"
        "ValueError, which name the argument.",
        "array"_a, "voxel_size"_a, "origin"_a, py::kw_only(), "name"_a, "outside"_a = py::none());
    type.staticMethod(
        "from_field", fromField,
        "A volume of a scalar field, with voxels of voxel_size where the field is within\n"
        "band * voxel_size of 0 in the box (low, high), and coarse elsewhere. Down to\n"
        "min_depth all tiles are made that meet the box; none is deeper than max_depth.\n"
        "Raises TypeError or ValueError, which name the argument, and KeyboardInterrupt.",
        "field"_a, "box"_a, "voxel_size"_a, "band"_a, py::kw_only(), "name"_a = "value",
        "outside"_a = 0, "min_depth"_a = py::none(), "max_depth"_a = py::none());
    type.method("with_field", withField,
                "A volume with one more channel, of the values of a field at the samples of this "
                "one.",
                "name"_a, "field"_a, "outside"_a = py::none());
    type.method("to_numpy", toNumpy,
                "The samples of all tiles of a depth, the deepest by default, as a dense array "
                "over\n"
                "the voxels of the volume; where there is no tile of the depth, the value "
                "outside.\n"
                "The shape is (nx, ny, nz), or (nx, ny, nz, 3) of vectors. Raises ValueError for "
                "a\n"
                "depth that there is not, KeyError for such a name.",
                "depth"_a = py::none(), "name"_a = py::none());
    type.method("origin", originOf, "The place of the sample [0, 0, 0] of to_numpy(depth).",
                "depth"_a = py::none());
    type.method(
        "tile_count",
        +[](Volume const& self, py::handle depth) {
            return self.tree->tileCount(depth.is_none() ? -1 : toDepth(self, depth));
        },
        "The number of tiles of a depth, or of all.", "depth"_a = py::none());
    type.attribute(
        "names",
        +[](Volume const& self) {
            std::vector<std::string> names;
            for (auto const& one : self.channels) names.push_back(one.name);
            return names;
        },
        "The names of the channels.");
    type.attribute(
        "voxel_size", +[](Volume const& self) { return self.tree->voxelSize(); },
        "The width of the finest voxels, in the units of positions.");
    type.attribute(
        "depth", +[](Volume const& self) { return self.tree->depth(); },
        "The deepest depth that has tiles.");
    type.method("__repr__", represent);
    type.copiesAreItself();
    type.method(
        "__reduce__", +[](Volume const& self) {
            return py::make_tuple(py::module_::import("zel._tools").attr("_volume"), stateOf(self));
        });
    addFunction(module, "_volume", fromState, "", "state"_a);
}

}  // namespace zel::python
