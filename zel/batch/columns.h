#pragma once

#include <array>
#include <type_traits>

#include "zel_platform/orvane_math/float3x3.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/always_inline.h"

// Values of many points, an array for each component, and the loops over them.
namespace zel {

/// The number of positions that are worked out together.
inline constexpr int kBlockSize = 256;

/// The number of floats in a value: 1 of a float, 3 of a float3, 9 of a float3x3, row after row.
template <class T> inline constexpr int kComponents = static_cast<int>(sizeof(T) / sizeof(float));

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

/// Reads values of type T.
template <class T> struct Columns {
    using Components = std::array<float const*, kComponents<T>>;

    /// Arrays of kBlockSize floats, of which as many count as the block has positions.
    Components component{};
    /// Whether the arrays stay as they are until the block is done. Others are given up when the
    /// node that asked for them returns.
    bool persistent = false;
    /// Whether they come from nodes of the library that do little for each position.
    bool light = false;

    ZEL_ALWAYS_INLINE T operator[](int i) const {
        return detail::gather<T>([&](unsigned c) { return component[c][i]; });
    }

    /// One component; of a matrix, one entry.
    Columns<float> part(int c) const {
        return {{component[static_cast<unsigned>(c)]}, persistent, light};
    }
};

/// Three arrays as those of a vector.
inline Columns<Orvane::Math::float3> joined(Columns<float> const& x, Columns<float> const& y,
                                            Columns<float> const& z) {
    return {{x.component[0], y.component[0], z.component[0]},
            x.persistent && y.persistent && z.persistent,
            x.light && y.light && z.light};
}

/// Writes values of type T.
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
            for (unsigned r = 0; r < 3; ++r) {
                Orvane::Math::float3 const& row = value[static_cast<int>(r)];
                component[3 * r][i] = row.x;
                component[3 * r + 1][i] = row.y;
                component[3 * r + 2][i] = row.z;
            }
        }
    }
};

/// Where a node leaves the values of a block: in the arrays that it is given, or, when there are
/// such arrays already, by naming them.
template <class T> class BlockResult {
public:
    /// `floats` has room for kComponents<T> arrays, `floatsApart` floats apart.
    explicit BlockResult(float* floats, int floatsApart = kBlockSize)
        : storage(floats), stride(floatsApart) {}

    /// The arrays to write to, all of which are then the result.
    ColumnWriter<T> writer() {
        ColumnWriter<T> arrays;
        for (int c = 0; c < kComponents<T>; ++c) {
            arrays.component[static_cast<unsigned>(c)] = storage + c * stride;
            columns.component[static_cast<unsigned>(c)] = storage + c * stride;
        }
        columns.persistent = columns.light = false;
        return arrays;
    }

    /// Names other arrays of kBlockSize floats as the result: those of the block, of a child, or of
    /// a constant.
    void set(Columns<T> const& other) { columns = other; }

    bool inStorage() const { return columns.component[0] == storage; }

    float* const storage;
    int const stride;
    Columns<T> columns;
    /// Whether the values come from a class of the user's, which is asked anew by each parent.
    bool byPoints = false;
};

}  // namespace zel
