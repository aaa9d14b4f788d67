#include "vdb_archive.h"

#include <openvdb/io/Archive.h>
#include <openvdb/io/GridDescriptor.h>
#include <openvdb/openvdb.h>

#include <algorithm>
#include <istream>
#include <locale>
#include <new>
#include <streambuf>

#include "error.h"

namespace zel::detail {

namespace {

/// A part of memory as a stream. To read past its end is an error, also within a value.
class ViewBuffer : public std::streambuf {
public:
    explicit ViewBuffer(std::span<char const> bytes) { limit(bytes, 0, bytes.size()); }

    void limit(std::span<char const> bytes, std::size_t at, std::size_t end) {
        char* const first = const_cast<char*>(bytes.data());  // never written
        setg(first, first + at, first + end);
    }

protected:
    pos_type seekpos(pos_type position, std::ios_base::openmode mode) override {
        return seekoff(off_type(position), std::ios_base::beg, mode);
    }
    pos_type seekoff(off_type offset, std::ios_base::seekdir from,
                     std::ios_base::openmode /*mode*/) override {
        off_type const start = from == std::ios_base::beg   ? 0
                               : from == std::ios_base::cur ? gptr() - eback()
                                                            : egptr() - eback();
        off_type const size = egptr() - eback();
        if (offset < -start || offset > size - start) return pos_type(off_type(-1));
        setg(eback(), eback() + start + offset, egptr());
        return pos_type(start + offset);
    }
};

class ViewArchive : public openvdb::io::Archive {
public:
    explicit ViewArchive(FileView const& file) : m_file(file), m_buffer(file.bytes()) {
        prepareVdbStream(m_stream);
        m_stream.exceptions(std::ios::badbit | std::ios::failbit | std::ios::eofbit);
        readHeader(m_stream);
        setFormatVersion(m_stream);
        setLibraryVersion(m_stream);
        setDataCompression(m_stream);
    }

    openvdb::GridBase::Ptr read(VdbSection const& section) {
        m_buffer.limit(m_file.bytes(), static_cast<std::size_t>(section.descriptor),
                       static_cast<std::size_t>(section.grid));
        openvdb::io::GridDescriptor descriptor;
        auto grid = descriptor.read(m_stream);
        m_buffer.limit(m_file.bytes(), static_cast<std::size_t>(section.grid),
                       static_cast<std::size_t>(section.end));
        readGrid(grid, descriptor, m_stream);
        return grid;
    }
    std::size_t place() {
        return static_cast<std::size_t>(m_stream.rdbuf()->pubseekoff(0, std::ios::cur));
    }

private:
    FileView const& m_file;
    ViewBuffer m_buffer;
    std::istream m_stream{&m_buffer};
};

AffineMap indexToWorld(openvdb::math::Transform const& transform) {
    auto const origin = transform.indexToWorld(openvdb::Vec3d(0, 0, 0));
    AffineMap map;
    for (int c = 0; c < 3; ++c) {
        openvdb::Vec3d unit(0, 0, 0);
        unit[c] = 1;
        auto const column = transform.indexToWorld(unit) - origin;
        for (int r = 0; r < 3; ++r)
            map[static_cast<std::size_t>(r)][static_cast<std::size_t>(c)] = column[r];
    }
    for (int r = 0; r < 3; ++r) map[static_cast<std::size_t>(r)][3] = origin[r];
    return map;
}

openvdb::GridBase::Ptr readGrid(FileView const& file, std::vector<VdbSection> const& sections,
                                VdbSection const& section) {
    initializeVdb();
    auto const fail = [&](std::string const& message) {
        throw FileError(file.name(), gridPlace(section.name), message);
    };
    auto const* owner = &section;  // of the tree
    if (!section.shares.empty()) {
        auto const found = std::find_if(sections.begin(), sections.end(), [&](auto const& other) {
            return other.name == section.shares && other.shares.empty() &&
                   other.tree == section.tree;
        });
        if (found == sections.end())
            fail("it shares the tree of a grid " + detail::quoted(section.shares) +
                 ", which the file lacks");
        owner = &*found;
    }
    checkVdbTree(file, *owner);
    try {
        ViewArchive archive(file);
        try {
            auto grid = archive.read(section);
            if (owner != &section) grid->setTree(archive.read(*owner)->baseTreePtr());
            return grid;
        } catch (std::ios_base::failure const&) {
            fail("the voxels end within a value, at byte " + std::to_string(archive.place()));
        } catch (openvdb::Exception const& error) {
            fail("damaged before byte " + std::to_string(archive.place()) + ": " + error.what());
        }
    } catch (std::bad_alloc const&) {  // wrong sizes were refused before
        throw;
    } catch (FileError const&) {
        throw;
    } catch (std::exception const& error) {  // of the stream or of OpenVDB
        fail(std::string("damaged: ") + error.what());
    }
    return {};
}

}  // namespace

void initializeVdb() {
    openvdb::initialize();
    for (char const* const type : kVdbTypes)
        if (!openvdb::GridBase::isRegistered(type)) throw std::bad_alloc();
}

void prepareVdbStream(std::ios& stream) {
    static int const last = std::ios_base::xalloc();  // the indices of OpenVDB are lower
    stream.iword(last);
    stream.imbue(std::locale::classic());
    if (stream.bad()) throw std::bad_alloc();
}

VdbContent readVdbContent(FileView const& file, std::vector<VdbSection> const& sections,
                          VdbSection const& section) {
    auto const grid = readGrid(file, sections, section);
    return {vdbValues(grid), indexToWorld(grid->transform())};
}

}  // namespace zel::detail
