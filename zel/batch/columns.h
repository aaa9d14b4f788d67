#pragma once

#include <array>
#include <cstddef>
#include <type_traits>

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/always_inline.h"

// The values of a block of positions. A column is an array of kBlockSize floats: one component of
// the value at each position. A block with fewer positions leaves the end of its columns undefined.
namespace zel {

/// The largest number of positions in a block.
inline constexpr int kBlockSize = 256;

/// The number of floats in a value: 1 of a float, 3 of a float3, 9 of a float3x3, row after row.
template <class T> inline constexpr std::size_t kComponents = sizeof(T) / sizeof(float);

namespace detail {

/// Makes a T of `component(0)`, `component(1)` and so on.
template <class T, class Component> ZEL_ALWAYS_INLINE inline T gather(Component const& component) {
    if constexpr (std::is_same_v<T, float>) {
        return component(0);
    } else if constexpr (std::is_same_v<T, Orvane::Math::float3>) {
        return {component(0), component(1), component(2)};
    } else {
        return {{{component(0), component(1), component(2)},
                 {component(3), component(4), component(5)},
                 {component(6), component(7), component(8)}}};
    }
}

}  // namespace detail

/// Values of type T, to be read: a column for each component.
template <class T> struct Columns {
    using Components = std::array<float const*, kComponents<T>>;

    Components component{};
    /// Whether the columns stay unchanged until the work on their positions is done. Other columns
    /// are valid until the frame ends in which they were asked for.
    bool persistent : 1 = false;  // the flags share a byte, which assign() copies by one load
    /// Whether all nodes that the values depend on are light. A light node is one of the library
    /// that takes little time a position: see PointwiseNode for the heavy ones. A node that needs
    /// light children at some positions only may evaluate them at all positions.
    bool light : 1 = false;

    ZEL_ALWAYS_INLINE T operator[](int i) const {
        return detail::gather<T>([&](std::size_t c) { return component[c][i]; });
    }

    /// Column `c` alone: a component of a vector, or an entry of a matrix.
    Columns<float> part(std::size_t c) const { return {{component[c]}, persistent, light}; }
};

/// Copies columns member by member, for where they have just been written. A compiler copies the
/// last pointer and the flags by one load, which would wait for the stores of both.
template <class T> ZEL_ALWAYS_INLINE inline void assign(Columns<T>& to, Columns<T> const& from) {
    to.component = from.component;
    to.persistent = from.persistent;
    to.light = from.light;
}

/// The columns of vectors with these components.
inline Columns<Orvane::Math::float3> joined(Columns<float> const& x, Columns<float> const& y,
                                            Columns<float> const& z) {
    return {{x.component[0], y.component[0], z.component[0]},
            x.persistent && y.persistent && z.persistent,
            x.light && y.light && z.light};
}

/// Columns to be written.
template <class T> struct ColumnWriter {
    std::array<float*, kComponents<T>> component{};

    ZEL_ALWAYS_INLINE void set(int i, T const& value) const {
        if constexpr (std::is_same_v<T, float>) {
            component[0][i] = value;
        } else if constexpr (std::is_same_v<T, Orvane::Math::float3>) {
            component[0][i] = value.x;
            component[1][i] = value.y;
            component[2][i] = value.z;
        } else {
            std::size_t first = 0;
            for (Orvane::Math::float3 const& row : value.rows) {
                component[first][i] = row.x;
                component[first + 1][i] = row.y;
                component[first + 2][i] = row.z;
                first += 3;
            }
        }
    }
};

/// The result of a node in a block: columns that the node writes, or columns that exist already and
/// that the node names.
template <class T> class BlockResult {
public:
    /// `floats` has room for kComponents<T> columns, which begin `floatsApart` floats apart.
    explicit BlockResult(float* floats, std::size_t floatsApart = kBlockSize)
        : storage(floats), stride(floatsApart) {}

    /// The columns in the storage, which become the result. The node writes all of them.
    ColumnWriter<T> writer() {
        ColumnWriter<T> written;
        for (std::size_t c = 0; c < kComponents<T>; ++c)
            columns.component[c] = written.component[c] = storage + c * stride;
        columns.persistent = columns.light = false;
        return written;
    }

    /// Names other columns as the result: those of the positions, of a child, or of a constant.
    void set(Columns<T> const& other) { assign(columns, other); }

    bool inStorage() const { return columns.component[0] == storage; }

    float* const storage;
    std::size_t const stride;
    Columns<T> columns;
    /// Whether the values come from point operations, by which a class of a user's is evaluated.
    /// Such values are not kept: each parent of the node asks again.
    bool byPoints = false;
};

}  // namespace zel
