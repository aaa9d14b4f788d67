#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>
#include <stdexcept>

#include <zel_exchange/vdb_write.h>

#include "commands.h"
#include "dense.h"
#include "scene.h"
#include "session.h"
#include "shares.h"

namespace command {

namespace {

constexpr int kStep = zel::VdbParts::kStep;

using Traits = zel::BinaryTraits;

/// The depth of tiles that are narrow enough for several a rank, and far wider than voxels.
int coarseDepth(std::uint64_t layers, std::size_t ranks) {
    constexpr std::uint64_t kTilesOfRank = 64;
    int depth = Traits::kMaxDepth - 2;
    while (layers / static_cast<std::uint64_t>(Traits::tileWidth(depth)) > kTilesOfRank * ranks)
        --depth;
    return depth;
}

/// Counts, for each kStep layers of the voxels from `base` on, the tiles of a depth that reach into
/// them and have their middle in the range.
std::vector<double> countTiles(ORV::TileTree3D::Container<Traits> const& tree, int depth, int base,
                               Range const& range, std::size_t steps) {
    std::vector<double> tiles(steps);
    int const width = Traits::tileWidth(depth);
    for (long long i = 0; i < tree.tileCount(depth); ++i) {
        long long const tile = static_cast<long long>(tree.tile(i, depth).tijk().x) - base;
        auto const middle = static_cast<std::uint64_t>(std::max(tile + width / 2, 0LL));
        if (middle < range.first || middle >= range.last) continue;  // a neighbour counts it
        for (long long x = std::max(tile, 0LL); x < tile + width; x += kStep)
            if (auto const step = static_cast<std::size_t>(x / kStep); step < steps)
                tiles[step] += 1;
    }
    return tiles;
}

/// Collective: the sums of the ranks' numbers, of which each has as many.
std::vector<double> sumOverRanks(std::vector<double> numbers, Ranks& ranks) {
    auto const all = ranks.gather(numbers);
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        numbers[i] = 0;
        for (std::size_t at = i; at < all.size(); at += numbers.size()) numbers[i] += all[at];
    }
    return numbers;
}

/// Collective: counts, for each kStep layers of voxels from `base` to `last` - 1, the coarse tiles
/// that may contain a part of the band. Each rank looks for those of its part of the box.
std::vector<double> weigh(zel::ScalarField const& field, VolumeOptions const& options, int base,
                          int last, Ranks& ranks, std::stop_token const& stop) {
    auto const layers = static_cast<std::uint64_t>(last - base);
    auto const part = splitByWeight(layers, {}, ranks.size())[ranks.rank()];
    auto const voxel = static_cast<float>(options.grid.voxel);
    zel::Box box = boxOf(options.grid);
    auto const at = [&](std::uint64_t layer) {
        return static_cast<float>(base + static_cast<double>(layer)) * voxel;
    };
    box.low.x = std::max(box.low.x, at(part.first));
    box.high.x = std::min(box.high.x, at(part.last));
    std::vector<double> tiles((layers + kStep - 1) / kStep);
    if (box.low.x < box.high.x) {
        zel::BuildOptions how;
        how.maxDepth = coarseDepth(layers, ranks.size());
        how.stop = stop;
        auto const coarse = zel::buildVolume<Traits>(field, box, voxel, *options.band, how);
        tiles = countTiles(*coarse.container, *how.maxDepth, base, part, tiles.size());
    }
    return sumOverRanks(std::move(tiles), ranks);
}

/// Makes the grid in layers along x, of equal weight for all ranks, and merges them at the root.
void makeParts(zel::VdbParts& parts, zel::VdbField const& field, VolumeOptions const& options,
               Ranks& ranks, std::stop_token const& stop) {
    auto const range = parts.range();
    int const base = range.first & -kStep;
    std::vector<double> weights;
    if (options.band) weights = weigh(*field.scalar, options, base, range.second, ranks, stop);
    auto layers = splitByWeight(static_cast<std::uint64_t>(range.second - base), weights,
                                ranks.size(), kStep);
    // The root gets some, if there are any: VdbParts::add() needs the grids that make() begins.
    std::stable_partition(layers.begin(), layers.end(),
                          [](Range const& some) { return some.size() > 0; });
    Range const own = layers[ranks.rank()];
    if (own.size() > 0)
        parts.make(std::max(range.first, base + static_cast<int>(own.first)),
                   base + static_cast<int>(own.last));
    if (ranks.isRoot()) {
        std::vector<std::byte> piece;
        for (std::size_t left = ranks.size() - 1; left > 0;) {
            ranks.receive({}, piece);
            if (piece.empty())
                --left;
            else
                parts.add(piece);
        }
    } else {
        for (std::vector<std::byte> piece; !(piece = parts.take()).empty();) ranks.send(piece);
        ranks.send({});
    }
}

void writeVdb(Scene const& scene, zel::Tree const& tree, VolumeOptions const& options, Ranks& ranks,
              std::stop_token const& stop) {
    zel::VdbField field;
    if (auto const* const scalar = std::get_if<zel::ScalarPtr>(&tree)) {
        bool const isLevelSet = options.band && !options.fog;
        field.scalar = *scalar;
        field.name = isLevelSet ? "surface" : "density";
        field.gridClass = isLevelSet    ? zel::VdbClass::kLevelSet
                          : options.fog ? zel::VdbClass::kFogVolume
                                        : zel::VdbClass::kUnknown;
    } else {
        if (options.band || options.fog)
            throw std::runtime_error(scene.name() +
                                     ": is a vector field, which has no --band and no --fog");
        field.vector = std::get<zel::VectorPtr>(tree);
        field.name = "vector";
    }
    if (!options.name.empty()) field.name = options.name;
    std::string temporary;
    Progress progress("samples", ranks.showsProgress());
    zel::WriteVdbOptions how;
    how.band = options.band;
    how.half = options.half;
    how.stop = stop;
    how.progress = progress.function();
    zel::VdbParts parts(options.output, {field}, boxOf(options.grid),
                        static_cast<float>(options.grid.voxel), how);
    if (ranks.isRoot()) temporary = parts.begin().string();
    temporary = ranks.fromRoot(temporary);
    if (!ranks.isRoot()) guardFile(temporary);
    // The element indices of a part are not those of the whole.
    if (!ranks.isAlone() && parts.isDivisible() && !readsElementIndex(tree)) {
        makeParts(parts, field, options, ranks, stop);
    } else if (ranks.isRoot()) {
        auto const range = parts.range();
        parts.make(range.first, range.second);
    }
    if (ranks.isRoot()) parts.write();
}

/// Throws std::runtime_error if a tree of so many bytes of samples is more than this machine holds.
/// The samples of a dense grid are all in memory until they are written.
void expectMemory(double bytes) {
    double const memory =
        static_cast<double>(sysconf(_SC_PHYS_PAGES)) * static_cast<double>(sysconf(_SC_PAGE_SIZE));
    char text[160];
    std::snprintf(text, sizeof text,
                  "the samples of --box take %.9g bytes, and this machine has a memory of %.9g: "
                  "use --band, or write .npy",
                  bytes, memory);
    if (bytes > memory) throw std::runtime_error(text);
}

}  // namespace

void volume(VolumeOptions const& options, Ranks& ranks, std::stop_token const& stop) {
    expectFiles(ranks, std::span(&options.scene.scene, 1));
    auto const suffix = expectSuffix(options.output, "a volume", {".vdb", ".npy"});
    if (suffix == ".npy" && (options.band || options.fog || options.half || !options.name.empty()))
        throw std::runtime_error(options.output +
                                 ": --band, --fog, --half and --name are for a .vdb file");
    if (options.fog && !options.band)
        throw std::runtime_error("--fog needs --band, the depth at which the density is 1");
    double const samples = suffix == ".vdb" ? checkVoxels(options.grid) : 0;
    if (suffix == ".npy") samplesOf(options.grid);
    Scene const scene(options.scene);
    zel::Tree const tree = scene.complete();
    double const bytes = std::holds_alternative<zel::ScalarPtr>(tree) ? 4 : 12;
    if (suffix == ".vdb" && !options.band) expectMemory(samples * bytes);
    if (suffix == ".vdb")
        writeVdb(scene, tree, options, ranks, stop);
    else
        writeDense(tree, options, ranks, stop);
}

}  // namespace command
