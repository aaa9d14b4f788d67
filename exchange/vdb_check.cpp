#include <array>
#include <bit>
#include <cstring>
#include <string>

#include "error.h"
#include "vdb_layout.h"

namespace zel::detail {

namespace {

constexpr std::uint32_t kZip = 1, kActiveMask = 2, kBlosc = 4;

/// Walks through the nodes of a tree of the kind 5, 4, 3 as OpenVDB reads them, and checks the
/// sizes of all blocks: OpenVDB copies a block that is not compressed by the size that the file
/// gives, into memory for the values that it expects.
class TreeCheck {
public:
    TreeCheck(FileView const& file, VdbSection const& section)
        : m_file(file), m_section(section), m_at(static_cast<std::size_t>(section.nodes)),
          m_end(static_cast<std::size_t>(section.end)) {
        std::size_t const parts = section.type.starts_with("vec3") ? 3 : 1;
        bool const isDouble = section.type == "double" || section.type == "vec3d";
        m_value = parts * (isDouble ? 8 : 4);
        m_stored = section.isHalf ? parts * 2 : m_value;
    }

    void run() {
        if (m_at == 0) fail("a transform that is not affine");  // also of a tree that is shared
        if (m_at > m_end) fail("a transform that is cut");
        // OpenVDB writes halves in two places, and reads the values by this one.
        auto const half = m_section.metadata.find("is_saved_as_half_float");
        // It takes an entry of an unknown type for true.
        bool const isThere = half != m_section.metadata.end();
        if (isThere && half->second.type != "bool")
            fail("is_saved_as_half_float of the type " + detail::quoted(half->second.type));
        bool const isHalf = isThere && half->second.text() == "true";
        if (isHalf != m_section.isHalf) fail("the type and the metadata differ about halves");
        number<std::int32_t>();  // of buffers
        bytes(m_value);          // the background
        auto const tiles = number<std::uint32_t>(), children = number<std::uint32_t>();
        for (std::uint32_t i = 0; i < tiles; ++i) bytes(12 + m_value + 1);
        std::array<std::int32_t, 3> last{};
        std::size_t leaves = 0;
        for (std::uint32_t i = 0; i < children; ++i) {
            auto const corner = number<std::array<std::int32_t, 3>>();
            for (std::int32_t const c : corner)
                if ((c & 4095) != 0) fail("a node at a corner that is no multiple of 4096");
            // The voxels come in this order.
            if (i > 0 && corner <= last) fail("nodes of the root that are not in order");
            last = corner;
            upper(leaves);
        }
        for (std::size_t i = 0; i < leaves; ++i) values(bytes(64), 512);
        if (m_at != m_end) fail(std::to_string(m_end - m_at) + " bytes behind the voxels");
    }

private:
    char const* bytes(std::size_t count) {
        if (count > m_end - m_at)
            fail("wanted " + std::to_string(count) + " bytes, and " + std::to_string(m_end - m_at) +
                 " are left");
        m_at += count;
        return m_file.bytes().data() + m_at - count;
    }
    template <class T> T number() {
        T value;
        std::memcpy(&value, bytes(sizeof value), sizeof value);
        return value;
    }
    [[noreturn]] void fail(std::string const& message) const {
        throw FileError(m_file.name(), gridPlace(m_section.name) + ", byte " + std::to_string(m_at),
                        message);
    }
    static std::size_t bits(char const* mask, std::size_t count) {
        std::size_t set = 0;
        for (std::size_t i = 0; i < count; i += 64) {
            std::uint64_t word;
            std::memcpy(&word, mask + i / 8, sizeof word);
            set += static_cast<std::size_t>(std::popcount(word));
        }
        return set;
    }

    void upper(std::size_t& leaves) {
        constexpr std::size_t kCount = 32 * 32 * 32;
        char const* const children = bytes(kCount / 8);
        values(bytes(kCount / 8), kCount);
        for (std::size_t i = bits(children, kCount); i > 0; --i) lower(leaves);
    }
    void lower(std::size_t& leaves) {
        constexpr std::size_t kCount = 16 * 16 * 16;
        char const* const children = bytes(kCount / 8);
        values(bytes(kCount / 8), kCount);
        std::size_t const count = bits(children, kCount);
        bytes(count * 64);  // the masks of leaves
        leaves += count;
    }

    /// The values of a node: which of the inactive ones follow, these, and the active ones.
    void values(char const* mask, std::size_t count) {
        auto const kind = number<std::int8_t>();
        if (kind < 0 || kind >= VdbValuesKind::kCount)
            fail("values of the kind " + std::to_string(kind));
        bytes(kVdbValuesKinds[static_cast<std::uint8_t>(kind)].bytes(m_value, count / 8));
        if ((m_section.compression & kActiveMask) != 0 && kind != VdbValuesKind::kAllValues)
            count = bits(mask, count);
        if (m_section.isHalf && count == 0) return;
        block(count * m_stored);
    }

    void block(std::size_t size) {
        if ((m_section.compression & (kZip | kBlosc)) == 0) {
            bytes(size);
            return;
        }
        auto const stored = number<std::int64_t>();
        if (stored <= 0) {  // not compressed
            if (stored != -static_cast<std::int64_t>(size))
                fail("a block of " + std::to_string(stored) + " bytes for " + std::to_string(size));
            bytes(size);
            return;
        }
        char const* const data = bytes(static_cast<std::size_t>(stored));
        if ((m_section.compression & kBlosc) == 0) return;
        // Blosc trusts the sizes in its header. OpenVDB pads blocks to 128 bytes.
        constexpr std::size_t kHeader = 16, kPadded = 128;
        std::uint32_t whole = 0, compressed = 0;
        if (stored >= std::int64_t{kHeader}) {
            std::memcpy(&whole, data + 4, sizeof whole);
            std::memcpy(&compressed, data + 12, sizeof compressed);
        }
        if (compressed != stored || (whole != size && (size >= kPadded || whole != kPadded)))
            fail("a compressed block whose sizes are wrong");
    }

    FileView const& m_file;
    VdbSection const& m_section;
    std::size_t m_at, m_end, m_value = 0, m_stored = 0;
};

}  // namespace

void checkVdbTree(FileView const& file, VdbSection const& section) {
    TreeCheck(file, section).run();
}

}  // namespace zel::detail
