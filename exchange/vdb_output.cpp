#include "vdb_output.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>
#include <stdexcept>
#include <system_error>

#include "number_text.h"
#include "vdb_archive.h"

namespace zel::detail {

namespace {

/// A UUID of version 8: 122 bits that depend on all bytes. SHA-1 would take as long as the rest
/// of writing.
std::string uuidOf(std::span<char const> bytes) {
    std::uint64_t a = bytes.size(), b = ~a;
    for (std::size_t i = 0; i < bytes.size(); i += sizeof a) {
        std::uint64_t word = 0;
        std::memcpy(&word, &bytes[i], std::min(sizeof word, bytes.size() - i));
        a = (a ^ word) * 0x9E3779B97F4A7C15;
        a ^= a >> 32;
        b = (std::rotl(b, 29) + word) * 0xC2B2AE3D27D4EB4F;
        b ^= b >> 31;
    }
    a ^= std::rotl(b, 32);
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%04x-8%03x-%04x-%012llx", static_cast<unsigned>(a >> 32),
                  static_cast<unsigned>(a >> 16 & 0xFFFF), static_cast<unsigned>(a & 0xFFF),
                  static_cast<unsigned>(b >> 48 & 0x3FFF) | 0x8000U,
                  static_cast<unsigned long long>(b & 0xFFFFFFFFFFFF));
    return text;
}

/// The bytes of a file to the end of its UUID, which OpenVDB chose at random, with a UUID that
/// is a hash of all the bytes after it.
std::string headerOf(std::filesystem::path const& written) {
    constexpr std::size_t kBefore = 21, kSize = 36;
    FileView const view(written);
    auto const rest = view.bytes().subspan(kBefore + kSize);
    return std::string(view.bytes().data(), kBefore) + uuidOf(rest);
}

}  // namespace

void refuseVdb(std::string const& message) {
    throw std::invalid_argument("zel::writeVdb: " + message);
}

VdbOutput::VdbOutput(std::filesystem::path const& path, WriteVdbOptions const& options)
    : m_path(path), m_options(options) {
    if (options.metadata.contains("")) refuseVdb("metadata without a name");
    initializeVdb();
}

void VdbOutput::refuseValue(std::string const& name, std::optional<openvdb::Coord> const& at,
                            float value) const {
    std::string const where = at ? "value of voxel (" + std::to_string(at->x()) + ", " +
                                       std::to_string(at->y()) + ", " + std::to_string(at->z()) +
                                       ")"
                                 : "background";
    throw FileError(m_path.string(), gridPlace(name),
                    "the " + where + " is " + numberText(value) +
                        (std::isfinite(value) ? ", too large for a half" : ""));
}

void VdbOutput::add(std::string const& name, openvdb::GridBase::Ptr const& grid, VdbClass gridClass,
                    VdbVectorType vectorType) {
    constexpr std::array kClasses{openvdb::GRID_UNKNOWN, openvdb::GRID_LEVEL_SET,
                                  openvdb::GRID_FOG_VOLUME, openvdb::GRID_STAGGERED};
    constexpr std::array kTypes{
        openvdb::VEC_INVARIANT, openvdb::VEC_COVARIANT, openvdb::VEC_COVARIANT_NORMALIZE,
        openvdb::VEC_CONTRAVARIANT_RELATIVE, openvdb::VEC_CONTRAVARIANT_ABSOLUTE};
    grid->setName(name);
    grid->setCreator(m_options.creator);
    grid->setSaveFloatAsHalf(m_options.half);
    grid->setGridClass(kClasses[static_cast<std::size_t>(gridClass)]);
    if (grid->isType<openvdb::Vec3SGrid>())
        grid->setVectorType(kTypes[static_cast<std::size_t>(vectorType)]);
    m_grids.push_back(grid);
}

std::filesystem::path VdbOutput::begin() {
    if (OutputFile::isDirect(m_path))
        throw FileError(m_path.string(), {}, "is no regular file, which OpenVDB needs");
    m_file.emplace(m_path);
    return m_file->temporaryPath();
}

void VdbOutput::compress() {
    for (std::size_t i = m_leaves.size(); i < m_grids.size(); ++i)
        m_leaves.emplace_back(*m_grids[i], m_options.parallel);
}

void VdbOutput::write() {
    if (!m_file) begin();
    compress();
    openvdb::MetaMap metadata;
    metadata.insertMeta("creator", openvdb::StringMetadata(m_options.creator));
    for (auto const& [name, value] : m_options.metadata)
        metadata.insertMeta(name, openvdb::StringMetadata(value));
    auto const fail = [&](std::string const& why) {
        throw FileError(m_path.string(), {}, "cannot be written: " + why);
    };
    try {
        errno = 0;
        std::ofstream stream;
        prepareVdbStream(stream);
        // Thrown where the system refuses bytes, errno still tells why.
        stream.exceptions(std::ios::badbit | std::ios::failbit);
        stream.open(m_file->temporaryPath(), std::ios::binary);
        writeVdbFile(stream, m_grids, m_leaves, metadata);
        stream.close();
    } catch (std::ios_base::failure const& error) {
        fail(errno != 0 ? std::generic_category().message(errno) : error.what());
    } catch (openvdb::Exception const& error) {
        fail(error.what());
    }
    checkComplete();
    std::string const header = headerOf(m_file->temporaryPath());
    m_file->rewriteBegin(std::as_bytes(std::span(header)));
    m_file->commit();
}

/// Reads the places of the grids back.
void VdbOutput::checkComplete() const {
    try {
        FileView const view(m_file->temporaryPath());
        auto const sections = vdbSections(view);
        auto const end = sections.empty() ? 0 : sections.back().end;
        if (sections.size() == m_grids.size() &&
            end == static_cast<std::int64_t>(view.bytes().size()))
            return;
    } catch (FileError const&) {
    }
    throw FileError(m_path.string(), {}, "cannot be written completely");
}

openvdb::math::Transform::Ptr vdbTransform(std::string const& name, AffineMap const& toWorld) {
    openvdb::Mat4d matrix = openvdb::Mat4d::identity();
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 4; ++c)
            matrix[c][r] = toWorld[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)];
    try {
        return openvdb::math::Transform::createLinearTransform(matrix);
    } catch (openvdb::ArithmeticError const&) {
        refuseVdb("the voxels of grid " + detail::quoted(name) + " are too small for OpenVDB");
    }
}

}  // namespace zel::detail
