// Reads any bytes as an OpenVDB file. A grid that is read has finite values, and is written and
// read again with the same values.
//
// The mutator needs no corpus: it starts from small files that OpenVDB writes. It knows where the
// numbers of a file are, moves the places of the grids when it inserts bytes, and moves bits within
// masks, so that the sizes in most files fit together and a mutation reaches the voxels.

#include <openvdb/openvdb.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "expect.h"
#include "zel/zel.h"
#include "zel_exchange/error.h"
#include "zel_exchange/vdb_write.h"

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t most);

namespace {

using Orvane::Math::float3;

std::string const& pathOf(char const* name) {
    static std::string const folder = "/dev/shm/vdb-" + std::to_string(getpid()) + "-";
    thread_local std::string path;
    return path = folder + name;
}

// ---- The target.

std::vector<float> samples(zel::VdbVolume const& volume, zel::VdbGrid const& grid) {
    std::mt19937 engine(1);
    std::vector<float> values;
    auto const channel = grid.name.empty() ? "unnamed" : grid.name;
    auto const index = [&] { return static_cast<float>(engine() % 400) / 4 - 50; };
    for (int i = 0; i < 50; ++i) {
        float3 p{index(), index(), index()};
        if (i % 5 == 0) p = p * 100;
        if (grid.type.starts_with("vec3")) {
            auto const value = volume.vector(channel)->eval(p, 0);
            values.insert(values.end(), {value.x, value.y, value.z});
        } else {
            values.push_back(volume.scalar(channel)->eval(p, 0));
        }
    }
    return values;
}

void readGrid(std::string const& path, zel::VdbGrid const& grid, zel::VdbTree tree, bool writes) {
    zel::ReadVdbOptions options;
    options.tree = tree;
    options.maxTiles = 1 << 12;
    options.parallel = false;
    try {
        auto const volume = zel::readVdb(path, grid.name, options);
        auto const values = samples(volume, grid);
        if (!writes || !volume.isPlaced()) return;
        std::string const copy = pathOf("copy");
        try {
            zel::writeVdb(copy, volume);
        } catch (std::invalid_argument const&) {  // as of a level set without a band
            return;
        }
        // A level set loses the distances outside of its band.
        bool const isLevelSet = volume.grids[0].metadata.contains("class") &&
                                volume.grids[0].metadata.at("class") == "level set";
        options.maxTiles *= 2;
        if (!isLevelSet) {
            auto const again = zel::readVdb(copy, volume.grids[0].name, options);
            auto const found = samples(again, volume.grids[0]);
            for (std::size_t i = 0; i < values.size(); ++i)
                expect(values[i] == found[i] || std::isnan(values[i]));
        }
        unlink(copy.c_str());
    } catch (zel::FileError const&) {
    }
}

// ---- Files to start from.

template <class Grid> openvdb::GridBase::Ptr seedGrid(typename Grid::ValueType one, bool tiles) {
    // Constructed by OpenVDB's own library: a constructor here would take minutes to compile.
    auto grid = openvdb::gridPtrCast<Grid>(openvdb::GridBase::createGrid(Grid::gridType()));
    auto& tree = grid->tree();
    tree.setValue({0, 0, 0}, one);
    tree.setValue({5, 6, 7}, one + one);
    tree.setValueOff({9, 1, 1}, -one);
    tree.fill(openvdb::CoordBBox::createCube({16, 8, 0}, 8), one, true);
    if (tiles) tree.addTile(2, {128, 0, 0}, one, true);
    return grid;
}

std::vector<std::string> makeSeeds() {
    using namespace openvdb;
    initialize();
    std::vector<std::string> seeds;
    auto const write = [&](GridPtrVec const& grids, std::uint32_t compression) {
        io::File file(pathOf("seed"));
        file.setCompression(compression);
        file.write(grids);
        std::ifstream in(pathOf("seed"), std::ios::binary);
        seeds.push_back((std::ostringstream() << in.rdbuf()).str());
        unlink(pathOf("seed").c_str());
    };
    for (std::uint32_t const compression : {2U, 3U, 6U, 1U, 4U})
        for (int type = 0; type < 5; ++type) {
            bool const tiles = type % 2 == 0;
            auto grid = type == 0   ? seedGrid<FloatGrid>(1.5F, tiles)
                        : type == 1 ? seedGrid<DoubleGrid>(2.5, tiles)
                        : type == 2 ? seedGrid<Vec3SGrid>(Vec3s(1, 2, 3), tiles)
                        : type == 3 ? seedGrid<Vec3DGrid>(Vec3d(1, 2, 3), tiles)
                                    : seedGrid<FloatGrid>(0.5F, tiles);
            grid->setName("a");
            grid->setSaveFloatAsHalf(type == 4);
            if (type == 1) grid->setGridClass(GRID_LEVEL_SET);
            if (type == 3) grid->setTransform(math::Transform::createLinearTransform(0.5));
            auto const other = GridBase::createGrid(FloatGrid::gridType());
            other->setName("b");
            auto const shared = grid->copyGrid();  // of one tree
            shared->setName("c");
            write({grid, other, shared}, compression);
        }
    return seeds;
}

// ---- The mutator.

enum class Kind { kNumber, kValue, kMask };
struct Spot {
    std::size_t at, size;
    Kind kind;
};

/// Walks through a file and notes where its numbers, values and masks are, as far as it is intact.
class Walk {
public:
    explicit Walk(std::string const& file) : m_file(file) { run(); }

    std::vector<Spot> spots;
    std::vector<Spot> treeSpots;  ///< those of them that are in trees
    bool isWhole() const { return m_good && !spots.empty(); }
    std::vector<std::size_t> places;  ///< of the places of grids, each of 8 bytes
    struct Block {
        std::size_t at, size;
        std::size_t plain;  ///< the bytes of the values
    };
    std::vector<Block> blocks;  ///< with their sizes before them
    struct Root {
        std::size_t tiles;  ///< where their number is
        std::size_t value;  ///< the size of a value
    };
    std::vector<Root> roots;

private:
    bool take(std::size_t size) {
        if (size > m_file.size() - m_at) return m_good = false;
        m_at += size;
        return true;
    }
    template <class T> T number() {
        T value{};
        if (!take(sizeof value)) return value;
        std::memcpy(&value, &m_file[m_at - sizeof value], sizeof value);
        spots.push_back({m_at - sizeof value, sizeof value, Kind::kNumber});
        return value;
    }
    std::size_t part(std::size_t size, Kind kind) {
        std::size_t const at = m_at;
        if (take(size)) spots.push_back({at, size, kind});
        return at;
    }
    std::string text() {
        auto const size = number<std::uint32_t>();
        std::size_t const at = m_at;
        if (!take(size)) return {};
        if (size > 0) spots.push_back({at, size, Kind::kMask});
        return m_file.substr(at, size);
    }
    void metadata() {
        for (auto n = number<std::uint32_t>(); n > 0 && m_good; --n) {
            text();
            text();
            part(number<std::uint32_t>(), Kind::kValue);
        }
    }
    std::size_t bits(std::size_t at, std::size_t count) const {
        std::size_t set = 0;
        for (std::size_t i = 0; i < count && m_good; ++i)
            set += static_cast<std::size_t>(m_file[at + i / 8] >> i % 8 & 1);
        return set;
    }
    void values(std::size_t mask, std::size_t count) {
        auto const kind = number<std::int8_t>();
        if (kind == 2 || kind == 4 || kind == 5) part(m_value, Kind::kValue);
        if (kind == 5) part(m_value, Kind::kValue);
        if (kind >= 3 && kind <= 5) part(count / 8, Kind::kMask);
        if ((m_compression & 2) != 0 && kind != 6) count = bits(mask, count);
        if (!m_good || (m_half && count == 0)) return;
        std::size_t const plain = count * (m_half ? m_value / 2 : m_value);
        if ((m_compression & 5) == 0) {
            if (plain > 0) part(plain, Kind::kValue);
            return;
        }
        std::size_t const at = m_at;
        auto const stored = number<std::int64_t>();
        std::size_t const size = stored > 0 ? static_cast<std::size_t>(stored) : plain;
        if (size > 0) part(size, Kind::kValue);
        if (m_good) blocks.push_back({at, size + 8, plain});
    }
    void tree() {
        number<std::int32_t>();
        part(m_value, Kind::kValue);
        roots.push_back({m_at, m_value});
        for (auto n = number<std::uint32_t>() + 0 * number<std::uint32_t>(); n > 0 && m_good; --n) {
            for (int axis = 0; axis < 3; ++axis) number<std::int32_t>();
            part(m_value, Kind::kValue);
            take(1);
        }
        std::uint32_t children = 0;
        if (!m_good) return;
        std::memcpy(&children, &m_file[roots.back().tiles + 4], sizeof children);
        std::size_t leaves = 0;
        for (; children > 0 && m_good; --children) {
            for (int axis = 0; axis < 3; ++axis) number<std::int32_t>();
            std::size_t const uppers = part(4096, Kind::kMask);
            values(part(4096, Kind::kMask), 32768);
            for (std::size_t n = bits(uppers, 32768); n > 0 && m_good; --n) {
                std::size_t const lowers = part(512, Kind::kMask);
                values(part(512, Kind::kMask), 4096);
                for (std::size_t l = bits(lowers, 4096); l > 0 && m_good; --l, ++leaves)
                    part(64, Kind::kMask);
            }
        }
        for (; leaves > 0 && m_good; --leaves) values(part(64, Kind::kMask), 512);
    }
    void run() {
        if (!take(8)) return;
        number<std::uint32_t>();
        take(8);
        number<char>();
        take(36);
        metadata();
        for (auto n = number<std::int32_t>(); n > 0 && m_good; --n) {
            text();
            auto const type = text();
            auto const shares = text();
            for (int i = 0; i < 3 && m_good; ++i) {
                number<std::int64_t>();
                if (m_good) places.push_back(m_at - sizeof(std::int64_t));
            }
            if (!m_good) return;
            std::int64_t place[3];
            std::memcpy(place, &m_file[places.back() - 16], sizeof place);
            m_at = static_cast<std::size_t>(place[0]);
            if (m_at > m_file.size()) return;
            m_compression = number<std::uint32_t>();
            metadata();
            auto const map = text();
            static std::size_t const kSizes[] = {128, 120, 144, 24};
            part(kSizes[map.find("Affine") != map.npos || map.find("Unitary") != map.npos ? 0
                        : map.find("ScaleTranslate") != map.npos                          ? 2
                        : map.find("Scale") != map.npos                                   ? 1
                                                                                          : 3],
                 Kind::kValue);
            m_half = type.find("Half") != type.npos;
            m_value = (type.find("vec3") != type.npos ? 3U : 1U) *
                      (type.find("double") != type.npos || type.find("3d") != type.npos ? 8U : 4U);
            auto const before = static_cast<std::ptrdiff_t>(spots.size());
            if (m_good && shares.empty()) tree();
            treeSpots.insert(treeSpots.end(), spots.begin() + before, spots.end());
            m_at = static_cast<std::size_t>(place[2]);
            m_good = m_good && m_at <= m_file.size();
        }
    }

    std::string const& m_file;
    std::size_t m_at = 0, m_value = 4;
    std::uint32_t m_compression = 0;
    bool m_half = false, m_good = true;
};

/// Replaces bytes by others, and moves the places of grids behind them.
void replace(std::string& file, Walk const& walk, std::size_t at, std::size_t size,
             std::string const& by) {
    for (std::size_t const place : walk.places) {
        std::int64_t value = 0;  // any number, in a damaged file
        std::memcpy(&value, &file[place], sizeof value);
        if (value > static_cast<std::int64_t>(at))
            value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) + by.size() - size);
        std::memcpy(&file[place], &value, sizeof value);
    }
    file.replace(at, size, by);
}

template <class T> void append(std::string& bytes, T const& value) {
    bytes.append(reinterpret_cast<char const*>(&value), sizeof value);
}

class Mutator {
public:
    explicit Mutator(unsigned seed) : m_engine(seed) {}

    void run(std::string& file) {
        static std::vector<std::string> const seeds = makeSeeds();
        // Few changes make a file whole again that is broken before its trees.
        if (below(Walk(file).isWhole() ? 100 : 2) == 0) file = seeds[below(seeds.size())];
        for (auto n = 1 + below(4); n > 0; --n) step(file);
    }

private:
    std::size_t below(std::size_t n) { return m_engine() % n; }
    std::int64_t someNumber() {
        static std::int64_t const kNumbers[] = {0,
                                                1,
                                                -1,
                                                2,
                                                7,
                                                8,
                                                128,
                                                511,
                                                512,
                                                513,
                                                4096,
                                                32768,
                                                1 << 24,
                                                4095,
                                                -128,
                                                -2048,
                                                -512,
                                                0x7FFFFFFF,
                                                -0x7FFFFFFF - 1LL,
                                                -4096,
                                                1 << 30,
                                                536870912,
                                                -536870912,
                                                INT64_MAX,
                                                INT64_MIN};
        auto const number = kNumbers[below(std::size(kNumbers))];
        return below(3) == 0
                   ? static_cast<std::int64_t>(static_cast<std::uint64_t>(number) + below(9) - 4)
                   : number;
    }
    float someValue() {
        static float const kValues[] = {0,
                                        -0.0F,
                                        1,
                                        -1,
                                        0.1F,
                                        3e38F,
                                        -1e38F,
                                        1e-45F,
                                        1e-30F,
                                        std::numeric_limits<float>::quiet_NaN(),
                                        std::numeric_limits<float>::infinity()};
        return kValues[below(std::size(kValues))];
    }
    void step(std::string& file) {
        Walk const walk(file);
        auto const& spots = walk.treeSpots.empty() || below(10) == 0 ? walk.spots : walk.treeSpots;
        if (spots.empty()) return;
        Spot const& spot = spots[below(spots.size())];
        switch (below(10)) {
        case 0: {  // a block that is not compressed
            if (walk.blocks.empty()) return;
            auto const& block = walk.blocks[below(walk.blocks.size())];
            std::string by;
            append(by, -static_cast<std::int64_t>(block.plain));
            while (by.size() < 8 + block.plain) append(by, someValue());
            by.resize(8 + block.plain);
            if (by.size() < 20000) replace(file, walk, block.at, block.size, by);
            return;
        }
        case 1: {  // one more tile of a root
            if (walk.roots.empty()) return;
            auto const& root = walk.roots[below(walk.roots.size())];
            if (root.tiles + 8 > file.size()) return;
            std::uint32_t count = 0;
            std::memcpy(&count, &file[root.tiles], sizeof count);
            ++count;
            std::memcpy(&file[root.tiles], &count, sizeof count);
            std::string tile;
            for (int axis = 0; axis < 3; ++axis) {
                auto const near = static_cast<std::int32_t>(below(5)) - 2;
                append(tile, below(8) == 0 ? static_cast<std::int32_t>(someNumber()) : near * 4096);
            }
            while (tile.size() < 12 + root.value) append(tile, someValue());
            tile.push_back(static_cast<char>(below(2)));
            replace(file, walk, root.tiles + 8, 0, tile);
            return;
        }
        case 2: {  // cut or lengthened
            std::string const by = file.substr(below(file.size()), below(20));
            replace(file, walk, spot.at, std::min(below(20), file.size() - spot.at), by);
            return;
        }
        default:
            change(file, spot);
        }
    }
    void change(std::string& file, Spot const& spot) {
        char* const at = &file[spot.at];
        if (spot.kind == Kind::kNumber) {
            std::int64_t const number = someNumber();
            std::memcpy(at, &number, std::min(spot.size, sizeof number));
        } else if (spot.kind == Kind::kValue && spot.size >= 4 && below(2) == 0) {
            double const wide = double{someValue()};
            float const value = someValue();
            std::size_t const place = below(spot.size / 4) * 4;
            if (spot.size % 8 == 0 && below(2) == 0)
                std::memcpy(at + place / 8 * 8, &wide, sizeof wide);
            else
                std::memcpy(at + place, &value, sizeof value);
        } else if (spot.kind == Kind::kMask && below(3) != 0) {
            moveBit(at, spot.size);
        } else {
            auto* const bytes = reinterpret_cast<std::uint8_t*>(at);
            LLVMFuzzerMutate(bytes, spot.size, spot.size);
        }
    }
    /// Moves a bit that is set to another place, so that their number stays.
    void moveBit(char* mask, std::size_t size) {
        std::vector<std::size_t> set;
        for (std::size_t i = 0; i < size * 8; ++i)
            if ((mask[i / 8] >> i % 8 & 1) != 0) set.push_back(i);
        std::size_t const to = below(size * 8);
        if (set.empty() || (mask[to / 8] >> to % 8 & 1) != 0) return;
        std::size_t const from = set[below(set.size())];
        mask[from / 8] = static_cast<char>(mask[from / 8] ^ 1 << from % 8);
        mask[to / 8] = static_cast<char>(mask[to / 8] ^ 1 << to % 8);
    }

    std::mt19937 m_engine;
};

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t most, unsigned seed) {
    std::string file(reinterpret_cast<char const*>(data), size);
    Mutator(seed).run(file);
    std::size_t const length = std::min(file.size(), most);
    std::memcpy(data, file.data(), length);
    return length;
}

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::string const path = pathOf("in");
    // What takes long is done for a part of the files.
    std::string_view const bytes(reinterpret_cast<char const*>(data), size);
    std::ofstream(path, std::ios::binary) << bytes;
    std::size_t const part = std::hash<std::string_view>()(bytes) % 16;
    try {
        std::size_t read = 0;
        for (auto const& grid : zel::listVdb(path))
            if (grid.isReadable && ++read <= 3)
                readGrid(path, grid, part == 1 ? zel::VdbTree::kQuinary : zel::VdbTree::kBinary,
                         part == 0);
    } catch (zel::FileError const&) {
    }
    unlink(path.c_str());
    return 0;
}
