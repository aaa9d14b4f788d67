#include "vdb_leaves.h"

#include <openvdb/io/Archive.h>
#include <openvdb/io/Compression.h>
#include <openvdb/io/DelayedLoadMetadata.h>
#include <openvdb/io/GridDescriptor.h>

#include <algorithm>
#include <cstdint>
#include <sstream>

#include "vdb_archive.h"
#include "vdb_layout.h"
#include "zel_platform/orvane_geometry_volume/parallel.h"

namespace zel::detail {

namespace {

class Archive : public openvdb::io::Archive {
public:
    std::uint32_t compressionOf(openvdb::GridBase const& grid) const {
        std::ostringstream stream;
        prepareVdbStream(stream);
        stream.exceptions(std::ios::badbit);
        setGridCompression(stream, grid);
        return openvdb::io::getDataCompression(stream);
    }

    void writeAll(std::ostream& stream, openvdb::GridPtrVec const& grids,
                  std::deque<VdbLeaves> const& leaves, openvdb::MetaMap const& metadata) const {
        writeHeader(stream, true);
        metadata.writeMeta(stream);
        auto const count = static_cast<std::int32_t>(grids.size());
        stream.write(reinterpret_cast<char const*>(&count), sizeof count);
        for (std::size_t i = 0; i < grids.size(); ++i)
            withVdbType(*grids[i], [&](auto const& grid) { writeGrid(stream, grid, leaves[i]); });
    }

private:
    template <class Grid>
    void writeGrid(std::ostream& stream, Grid const& grid, VdbLeaves const& leaves) const {
        openvdb::io::GridDescriptor descriptor(grid.getName(), grid.type(), grid.saveFloatAsHalf());
        descriptor.writeHeader(stream);
        auto const places = stream.tellp();
        descriptor.writeStreamPos(stream);
        descriptor.setGridPos(stream.tellp());
        setGridCompression(stream, grid);
        withMetadata(grid, leaves)->writeMeta(stream);
        grid.writeTransform(stream);
        grid.writeTopology(stream);
        descriptor.setBlockPos(stream.tellp());
        for (auto leaf = grid.tree().cbeginLeaf(); leaf; ++leaf) {
            auto const bytes = leaves.of(*leaf);
            stream.write(reinterpret_cast<char const*>(bytes.data()),
                         static_cast<std::streamsize>(bytes.size()));
        }
        descriptor.setEndPos(stream.tellp());
        stream.seekp(places);
        descriptor.writeStreamPos(stream);
        descriptor.seekToEnd(stream);
    }

    /// The grid with what OpenVDB adds for those who read a part of a file.
    template <class Grid>
    openvdb::GridBase::Ptr withMetadata(Grid const& grid, VdbLeaves const& leaves) const {
        using Value = typename Grid::ValueType;
        constexpr std::size_t kMask = Grid::TreeType::LeafNodeType::SIZE / 8, kSize = 8;
        auto const copy =
            openvdb::gridPtrCast<Grid>(openvdb::ConstPtrCast<openvdb::GridBase>(grid.copyGrid()));
        copy->addStatsMetadata();
        openvdb::Index64 const count = grid.tree().leafCount();
        // With the values that were taken from the leaves.
        auto const used = grid.memUsage() + count * kMask * 8 * sizeof(Value);
        copy->insertMeta(openvdb::GridBase::META_FILE_MEM_BYTES,
                         openvdb::Int64Metadata(static_cast<openvdb::Int64>(used)));
        auto const compression = compressionOf(grid);
        copy->insertMeta(openvdb::GridBase::META_FILE_COMPRESSION,
                         openvdb::StringMetadata(openvdb::io::compressionToString(compression)));
        openvdb::io::DelayedLoadMetadata delayed;
        bool const isCompressed =
            (compression & (openvdb::io::COMPRESS_ZIP | openvdb::io::COMPRESS_BLOSC)) != 0;
        if (count > 0) {
            delayed.resizeMask(count);
            if (isCompressed) delayed.resizeCompressedSize(count);
        }
        std::size_t i = 0;
        for (auto leaf = grid.tree().cbeginLeaf(); leaf; ++leaf, ++i) {
            auto const bytes = leaves.of(*leaf);
            auto const kind = static_cast<std::int8_t>(bytes[kMask]);
            static_assert(VdbValuesKind::kAllValues == int{openvdb::io::NO_MASK_AND_ALL_VALS});
            std::size_t const before =
                kMask + sizeof kind +
                kVdbValuesKinds[static_cast<std::uint8_t>(kind)].bytes(sizeof(Value), kMask);
            delayed.setMask(i, kind);
            // No halves have no size.
            if (isCompressed)
                delayed.setCompressedSize(
                    i, static_cast<std::int64_t>(std::max(bytes.size() - before, kSize)));
        }
        copy->insertMeta(openvdb::GridBase::META_FILE_DELAYED_LOAD, delayed);
        return copy;
    }
};

}  // namespace

VdbLeaves::VdbLeaves(openvdb::GridBase& grid, bool parallel) {
    std::uint32_t const compression = Archive().compressionOf(grid);
    withVdbType(grid, [&]<class Grid>(Grid& typed) {
        using Leaf = typename Grid::TreeType::LeafNodeType;
        constexpr std::size_t kAtATime = 1024;
        std::vector<Leaf*> leaves;
        typed.tree().getNodes(leaves);
        m_leaves.resize(leaves.size());
        auto const background = typed.background();
        auto const encode = [&](std::size_t part) {
            std::ostringstream stream;
            prepareVdbStream(stream);
            stream.exceptions(std::ios::badbit);
            openvdb::io::setDataCompression(stream, compression);
            openvdb::io::setGridBackgroundValuePtr(stream, &background);
            std::size_t const first = part * kAtATime,
                              last = std::min(first + kAtATime, leaves.size());
            for (std::size_t i = first; i < last; ++i) {
                stream.seekp(0);
                leaves[i]->writeBuffers(stream, typed.saveFloatAsHalf());
                auto const bytes = std::as_bytes(std::span(stream.view()));
                auto const size = static_cast<std::size_t>(stream.tellp());
                typename Leaf::Buffer none(openvdb::PartialCreate(), background);
                leaves[i]->swap(none);
                leaves[i]->setTransientData(static_cast<openvdb::Index32>(i));
                m_leaves[i].assign(bytes.begin(),
                                   bytes.begin() + static_cast<std::ptrdiff_t>(size));
            }
        };
        auto const encodeAll = [&](long long first, long long last) {
            for (long long part = first; part < last; ++part)
                encode(static_cast<std::size_t>(part));
        };
        auto const parts = static_cast<long long>((leaves.size() + kAtATime - 1) / kAtATime);
        if (parallel)
            ORV::TileTree3D::Internal::parallelRanges(parts, 1, encodeAll);
        else
            encodeAll(0, parts);
    });
}

void writeVdbFile(std::ostream& stream, openvdb::GridPtrVec const& grids,
                  std::deque<VdbLeaves> const& leaves, openvdb::MetaMap const& metadata) {
    Archive().writeAll(stream, grids, leaves, metadata);
}

}  // namespace zel::detail
