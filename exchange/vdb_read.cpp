#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>
#include <tbb/task_arena.h>
#include <tuple>

#include "affine_map.h"
#include "error.h"
#include "number_text.h"
#include "numbers.h"
#include "vdb.h"
#include "vdb_values.h"
#include "zel_platform/orvane_geometry/geo_property.h"

namespace zel {

namespace detail {

namespace {

/// The place of a finest tile: how many tiles lie below it along each axis.
using TilePlace = std::array<std::uint32_t, 3>;

template <class Traits> std::uint32_t tilesBelow(int lattice) {
    return Traits::aboveRoot(lattice) / Traits::kSamples;
}
template <class Traits> int3 tileCorner(TilePlace const& place) {
    auto const corner = [](std::uint32_t below) {
        return static_cast<int>(below * Traits::kSamples +
                                static_cast<std::uint32_t>(Traits::kRootCorner));
    };
    return {corner(place[0]), corner(place[1]), corner(place[2])};
}

/// The finest tiles that are the parts of cells: where the boxes of a cell are tiles of the tree.
std::vector<TilePlace> partTiles(std::vector<VdbCell> const& cells, int3 const& shift) {
    std::vector<TilePlace> places;
    places.reserve(cells.size() * 8);
    for (VdbCell const& cell : cells)
        for (unsigned part = 0; part < 8; ++part) {
            if ((cell.parts >> part & 1) == 0) continue;
            TilePlace place;
            for (unsigned axis = 0; axis < 3; ++axis)
                place[axis] = tilesBelow<BinaryTraits>(cell.corner[static_cast<int>(axis)] +
                                                       shift[static_cast<int>(axis)]) +
                              (part >> axis & 1);
            places.push_back(place);
        }
    return places;
}

/// A finest tile, and its place in an order in which neighbours share most ancestors, as addTiles()
/// needs it. The tiles of a tree of 5 children along each axis go depth first within groups of 125
/// tiles along each axis, which are those of an ancestor three depths above; the groups go by z, y
/// and x.
struct OrderedTile {
    static constexpr std::uint32_t kGroup = 5 * 5 * 5;

    explicit OrderedTile(TilePlace const& place_) : place(place_) {
        for (std::size_t axis = 0; axis < 3; ++axis) group[2 - axis] = place[axis] / kGroup;
        // The slots of the ancestors in the group, from the highest on, as the digits of a number.
        for (std::uint32_t width = kGroup / 5; width > 0; width /= 5) {
            auto const slot = [&](std::size_t axis) { return place[axis] % kGroup / width % 5; };
            inGroup = inGroup * 125 + slot(0) + 5 * slot(1) + 25 * slot(2);
        }
    }
    bool operator<(OrderedTile const& other) const {
        return std::tie(group, inGroup) < std::tie(other.group, other.inGroup);
    }

    std::array<std::uint32_t, 3> group{};
    std::uint32_t inGroup = 0;
    TilePlace place;
};

/// Calls `use(place)` for the finest tiles that meet a part of a cell.
template <class Traits, class Use>
void forEachTileOver(VdbCell const& cell, unsigned part, int3 const& shift, Use const& use) {
    TilePlace low, high;
    for (unsigned axis = 0; axis < 3; ++axis) {
        int const at = cell.corner[static_cast<int>(axis)] + shift[static_cast<int>(axis)] +
                       static_cast<int>(part >> axis & 1) * 4;
        low[axis] = tilesBelow<Traits>(at);
        high[axis] = tilesBelow<Traits>(at + 3);
    }
    for (std::uint32_t z = low[2]; z <= high[2]; ++z)
        for (std::uint32_t y = low[1]; y <= high[1]; ++y)
            for (std::uint32_t x = low[0]; x <= high[0]; ++x) use(TilePlace{x, y, z});
}

/// The finest tiles that meet the parts of cells, each once, in the order of OrderedTile.
template <class Traits>
std::vector<TilePlace> tilesOver(std::vector<VdbCell> const& cells, int3 const& shift) {
    std::vector<OrderedTile> tiles;
    for (VdbCell const& cell : cells)
        for (unsigned part = 0; part < 8; ++part)
            if ((cell.parts >> part & 1) != 0)
                forEachTileOver<Traits>(cell, part, shift,
                                        [&](TilePlace const& place) { tiles.emplace_back(place); });
    std::sort(tiles.begin(), tiles.end());
    std::vector<TilePlace> places;
    for (OrderedTile const& tile : tiles)
        if (places.empty() || places.back() != tile.place) places.push_back(tile.place);
    return places;
}

/// Adds finest tiles with their ancestors. Neighbours in the list share most ancestors.
template <class Traits>
void addTiles(TileContainer<Traits>& tree, std::vector<TilePlace> const& places) {
    constexpr int kDeepest = Traits::kMaxDepth, B = Traits::kBranch;
    std::array<ORV::TileTree3D::TreeIndex, kDeepest + 1> path;
    path[0] = tree.addTile(0, 0, 0, 0);
    std::array<std::uint32_t, kDeepest + 1> divisors;  // finest tiles along a tile, by depth
    std::uint32_t divisor = 1;
    for (std::size_t depth = kDeepest + 1; depth-- > 0; divisor *= B) divisors[depth] = divisor;
    TilePlace last{};
    std::size_t known = 0;  // the depth down to which the path is that of the last tile
    for (TilePlace const& place : places) {
        std::size_t depth = known;
        auto const isShared = [&](std::size_t d) {
            for (std::size_t axis = 0; axis < 3; ++axis)
                if (place[axis] / divisors[d] != last[axis] / divisors[d]) return false;
            return true;
        };
        while (depth > 0 && !isShared(depth)) --depth;
        while (depth < kDeepest) {
            ++depth;
            int3 child;
            for (std::size_t axis = 0; axis < 3; ++axis)
                child[static_cast<int>(axis)] =
                    static_cast<int>(place[axis] / divisors[depth] % std::uint32_t{B});
            path[depth] = tree.addChild(path[depth - 1], child);
        }
        known = kDeepest;
        last = place;
    }
}

/// The grids of one tree, and where they go.
struct Request {
    FileView const& file;
    std::vector<std::string> const& names;
    std::vector<std::unique_ptr<VdbValues>> values;
    std::vector<std::string> channels;
    float voxelSize = 1;
    int3 shift{};
    ReadVdbOptions const& options;

    [[noreturn]] void fail(std::size_t grid, std::string const& message) const {
        throw FileError(file.name(), gridPlace(names[grid]), message);
    }
};

std::string text(int3 const& at) {
    return "(" + std::to_string(at.x) + ", " + std::to_string(at.y) + ", " + std::to_string(at.z) +
           ")";
}

template <class Traits> std::vector<TilePlace> finestTiles(Request const& request) {
    constexpr int kReach = 1 << 29;  // of both kinds of tree
    std::vector<VdbCell> cells;
    for (std::size_t grid = 0; grid < request.values.size(); ++grid) {
        try {
            auto more = request.values[grid]->cells(request.options.maxTiles,
                                                    int3{} - request.shift, kReach);
            if (grid == 0)
                cells = std::move(more);
            else
                cells.insert(cells.end(), more.begin(), more.end());
        } catch (OutsideLattice const& outside) {
            request.fail(grid, "voxels at " + text(outside.at) +
                                   ", and a tree reaches 536870912 voxels from the origin");
        } catch (TooManyTiles const&) {
            request.fail(grid, "more than " + std::to_string(request.options.maxTiles) + " tiles");
        }
    }
    bool aligned = Traits::kBranch == 2 && request.values.size() == 1;
    for (int axis = 0; axis < 3; ++axis) aligned = aligned && request.shift[axis] % 8 == 0;
    if (aligned) return partTiles(cells, request.shift);

    auto places = tilesOver<Traits>(cells, request.shift);
    std::vector<int3> boxes;
    boxes.reserve(places.size());
    for (TilePlace const& place : places)
        boxes.push_back(tileCorner<Traits>(place) - request.shift);
    std::vector<char> constant(places.size(), 1);
    for (auto const& values : request.values)
        values->findConstant(boxes, Traits::kSamples, constant);
    std::size_t count = 0;
    for (std::size_t i = 0; i < places.size(); ++i)
        if (constant[i] == 0) places[count++] = places[i];
    places.resize(count);
    return places;
}

template <class Traits> Quern::Ptr<ORV::Object> makeVolume(Request& request) {
    auto const places = finestTiles<Traits>(request);
    auto tree = Quern::makePtr<TileContainer<Traits>>(
        request.voxelSize,
        std::clamp(request.options.maxTiles, 1LL, TileContainer<Traits>::kMaxTiles));
    auto topology = Quern::makePtr<TileTopology<Traits>>(tree);
    try {
        addTiles<Traits>(*tree, places);
    } catch (std::length_error const&) {
        request.fail(0, "more than " + std::to_string(request.options.maxTiles) + " tiles");
    }
    std::vector<NamedVolume> volumes;
    for (std::size_t grid = 0; grid < request.values.size(); ++grid) {
        try {
            volumes.push_back(request.values[grid]->channel(request.channels[grid], tree, topology,
                                                            request.shift));
        } catch (WrongValue const& wrong) {
            request.fail(grid,
                         "the value of voxel " + text(wrong.at) + " is " + numberText(wrong.value));
        }
        request.values[grid].reset();
    }
    try {
        return toVolumeObject(volumes);
    } catch (std::invalid_argument const& error) {
        throw FileError(request.file.name(), {}, error.what());
    }
}

std::string rowsText(AffineMap const& map) {
    std::string numbers;
    for (auto const& row : map)
        for (double const number : row)
            numbers += " " + numberText(number, std::chars_format::general, 6);
    return numbers;
}

/// Sets the size of voxels and the place of the volume by the map of the file.
void setPlace(AffineMap const& toWorld, Request& request, VdbVolume& volume) {
    constexpr double kNear = 1e-9;  // far less than floats can tell
    double const size = std::cbrt(std::abs(determinant(toWorld)));
    volume.worldToIndex = inverse(toWorld);
    bool cubes = true;
    request.voxelSize = nearestFloat(size);
    if (!isFinite(volume.worldToIndex) || !std::isnormal(request.voxelSize) ||
        !std::isfinite(1 / request.voxelSize))
        request.fail(0, "a transform that cannot be inverted, or not in floats");
    for (std::size_t r = 0; r < 3; ++r)
        for (std::size_t c = 0; c < 3; ++c)
            cubes = cubes && std::abs(toWorld[r][c] - (r == c ? size : 0)) <= kNear * size;
    bool whole = cubes;
    std::array<double, 3> origin{};
    for (std::size_t r = 0; r < 3 && cubes; ++r) {
        origin[r] = std::round(toWorld[r][3] / size);
        whole = whole && std::abs(toWorld[r][3] / size - origin[r]) <= kNear &&
                std::abs(origin[r]) < 1 << 28;
    }
    volume.worldToVolume = kIdentity;
    if (whole) {
        request.shift = {static_cast<int>(origin[0]), static_cast<int>(origin[1]),
                         static_cast<int>(origin[2])};
        return;
    }
    if (cubes) {
        for (std::size_t r = 0; r < 3; ++r) volume.worldToVolume[r][3] = -toWorld[r][3];
        return;
    }
    volume.worldToVolume = volume.worldToIndex;
    for (auto& row : volume.worldToVolume)
        for (double& number : row) number *= size;
}

std::string available(std::vector<VdbSection> const& sections) {
    std::string text = sections.empty() ? "no grids" : "the grids";
    for (auto const& section : sections) text += " " + detail::quoted(section.name) + ",";
    if (!sections.empty()) text.pop_back();
    return text;
}

VdbGrid gridOf(VdbSection const& section) {
    bool const isReadable =
        std::find(kVdbTypes.begin(), kVdbTypes.end(), section.tree) != kVdbTypes.end();
    VdbGrid grid{section.name, section.type, section.isHalf, isReadable, {}, section.indexToWorld};
    for (auto const& [name, entry] : section.metadata) grid.metadata[name] = entry.text();
    return grid;
}

void readGrids(Request& request, VdbVolume& volume) {
    auto const sections = vdbSections(request.file);
    std::optional<AffineMap> map;
    for (std::size_t i = 0; i < request.names.size(); ++i) {
        auto const named = [&](std::string const& name) {
            return std::find_if(sections.begin(), sections.end(),
                                [&](VdbSection const& s) { return s.name == name; });
        };
        auto section = named(request.names[i]);
        if (section == sections.end()) section = named(request.names[i] + "[0]");
        if (section == sections.end())
            request.fail(i, "there is none; the file has " + available(sections));
        if (section->nodes == 0)
            request.fail(i, "a transform of the type " + detail::quoted(section->transform) +
                                ", which is not affine");
        if (auto const& own = section->indexToWorld; own && !isFinite(inverse(*own)))
            request.fail(i, "a transform that cannot be inverted, with the rows" + rowsText(*own));
        auto grid = gridOf(*section);
        if (!grid.isReadable)
            request.fail(i, "values of the type " + detail::quoted(section->tree) +
                                "; float, double, vec3s and vec3d can be read");
        auto read = readVdbContent(request.file, sections, *section);
        if (map && *map != read.toWorld)
            request.fail(i, "another transform than that of grid " +
                                detail::quoted(request.names[0]) + "; read them one by one");
        map = read.toWorld;
        if (!read.values) request.fail(i, "values of the type " + detail::quoted(section->tree));
        request.values.push_back(std::move(read.values));
        grid.name = request.names[i];
        request.channels.push_back(channelName(grid.name));
        volume.grids.push_back(std::move(grid));
    }
    setPlace(*map, request, volume);
}

}  // namespace

}  // namespace detail

std::vector<VdbGrid> listVdb(std::filesystem::path const& path) {
    detail::FileView const file(path);
    std::vector<VdbGrid> grids;
    for (auto const& section : detail::vdbSections(file)) grids.push_back(detail::gridOf(section));
    return grids;
}

VdbVolume readVdbGrids(std::filesystem::path const& path, std::vector<std::string> const& gridNames,
                       ReadVdbOptions const& options) {
    detail::FileView const file(path);
    if (gridNames.empty()) throw FileError(file.name(), {}, "no grid is asked for");
    VdbVolume volume;
    auto const read = [&] {
        detail::Request request{file, gridNames, {}, {}, 1, {}, options};
        detail::readGrids(request, volume);
        Orvane::Geometry::setVolume(volume.object,
                                    options.tree == VdbTree::kBinary
                                        ? detail::makeVolume<BinaryTraits>(request)
                                        : detail::makeVolume<QuinaryTraits>(request));
    };
    if (options.parallel)
        read();
    else
        tbb::task_arena(1).execute(read);
    return volume;
}

VdbVolume readVdb(std::filesystem::path const& path, std::string const& gridName,
                  ReadVdbOptions const& options) {
    return readVdbGrids(path, {gridName}, options);
}

}  // namespace zel
