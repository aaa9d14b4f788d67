#pragma once

#include <openvdb/tree/ValueAccessor.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "numbers.h"
#include "zel_platform/orvane_math/vectors.h"
#include "zel_platform/quern_core/always_inline.h"

namespace zel::detail {

using Orvane::Math::float3;
using Orvane::Math::int3;

inline float nearestFloat(float value) {
    return value;
}

/// The value of a channel for a value of a VDB tree.
template <class V> auto channelValue(V const& value) {
    if constexpr (std::is_arithmetic_v<V>)
        return nearestFloat(value);
    else
        return float3{nearestFloat(value[0]), nearestFloat(value[1]), nearestFloat(value[2])};
}
template <class V> using ChannelValue = decltype(channelValue(std::declval<V>()));

/// Whether two values compare equal or are both NaN, so that a region of NaN is constant.
template <class V> ZEL_ALWAYS_INLINE inline bool isSame(V const& a, V const& b) {
    if constexpr (std::is_arithmetic_v<V>)
        return a == b || (a != a && b != b);
    else
        return isSame(a[0], b[0]) && isSame(a[1], b[1]) && isSame(a[2], b[2]);
}

inline bool isFinite(float value) {
    return std::isfinite(value);
}
inline bool isFinite(float3 const& value) {
    return std::isfinite(value.x) && std::isfinite(value.y) && std::isfinite(value.z);
}

/// Reads values of a VDB tree. For one thread.
template <class Tree> class VdbSource {
public:
    using Value = typename Tree::ValueType;
    using Leaf = typename Tree::LeafNodeType;
    static constexpr int kLeafWidth = Leaf::DIM;
    static_assert(kLeafWidth == 8);

    explicit VdbSource(Tree const& tree) : m_accessor(tree) {}

    Value value(int3 const& at) { return m_accessor.getValue({at.x, at.y, at.z}); }
    Leaf const* leaf(int3 const& at) { return m_accessor.probeConstLeaf({at.x, at.y, at.z}); }
    template <class Node> Node const* node(int3 const& at) {
        return m_accessor.template probeConstNode<Node>({at.x, at.y, at.z});
    }

    /// The place of a voxel in a leaf, z fastest.
    static constexpr int offset(int3 const& at) {
        constexpr int kMask = kLeafWidth - 1;
        return (at.x & kMask) << 6 | (at.y & kMask) << 3 | (at.z & kMask);
    }

    /// Whether the values at 4 voxels of a leaf along each axis are the same, from one of the
    /// leaf's values on.
    static bool isUniformPart(Value const* values) {
        using Words = std::array<std::uint64_t, sizeof(Value) * 4 / sizeof(std::uint64_t)>;
        std::array<Value, 4> row;
        row.fill(*values);
        auto const constant = std::bit_cast<Words>(row);
        for (int x = 0; x < 4; ++x) {
            std::uint64_t differs = 0;  // of a layer, which is faster than to test each word
            for (int y = 0; y < 4; ++y) {
                Words words;
                std::memcpy(&words, values + offset({x, y, 0}), sizeof words);
                for (std::size_t i = 0; i < words.size(); ++i) differs |= words[i] ^ constant[i];
            }
            if (differs != 0 && !isSameBox(values + offset({x, 0, 0}), {1, 4, 4}, *values))
                return false;
        }
        return true;
    }
    /// Whether voxels of a leaf have a value, from one of the leaf's values on.
    static bool isSameBox(Value const* values, int3 const& size, Value const& constant) {
        for (int x = 0; x < size.x; ++x)
            for (int y = 0; y < size.y; ++y)
                for (int z = 0; z < size.z; ++z)
                    if (!isSame(values[offset({x, y, z})], constant)) return false;
        return true;
    }

    /// Writes the values at W points along each axis, from a corner on, x fastest.
    template <int W, class To> void read(int3 const& corner, To* to) {
        if constexpr (W == 4)
            if (((corner.x | corner.y | corner.z) & 3) == 0) return readAligned(corner, to);
        Parts<W> const x(corner.x), y(corner.y), z(corner.z);
        for (int k = 0; k < W; k = z.end(k))
            for (int j = 0; j < W; j = y.end(j))
                for (int i = 0; i < W; i = x.end(i))
                    readPart<W>(corner + int3{i, j, k}, {x.end(i) - i, y.end(j) - j, z.end(k) - k},
                                to + i + W * (j + W * k));
    }

    /// Whether the values at W points along each axis are the same, those of one node first.
    template <int W> bool isConstant(int3 const& corner) {
        Parts<W> const x(corner.x), y(corner.y), z(corner.z);
        Value const first = value(corner);
        for (int k = 0; k < W; k = z.end(k))
            for (int j = 0; j < W; j = y.end(j))
                for (int i = 0; i < W; i = x.end(i))
                    if (!isPartConstant(corner + int3{i, j, k},
                                        {x.end(i) - i, y.end(j) - j, z.end(k) - k}, first))
                        return false;
        return true;
    }

private:
    /// Splits W points along an axis where leaves meet.
    template <int W> struct Parts {
        static_assert(W <= kLeafWidth + 1);
        explicit Parts(int corner) : split(kLeafWidth - (corner & (kLeafWidth - 1))) {}
        int end(int i) const {
            int const next = i < split ? split : split + kLeafWidth;
            return next < W ? next : W;
        }
        int split;
    };

    template <int W, class To> void readPart(int3 const& at, int3 const& size, To* to) {
        Leaf const* const from = leaf(at);
        if (!from) {
            To const constant = channelValue(value(at));
            for (int k = 0; k < size.z; ++k)
                for (int j = 0; j < size.y; ++j)
                    for (int i = 0; i < size.x; ++i) to[i + W * (j + W * k)] = constant;
            return;
        }
        Value const* const values = from->buffer().data() + offset(at);
        for (int k = 0; k < size.z; ++k)
            for (int j = 0; j < size.y; ++j)
                for (int i = 0; i < size.x; ++i)
                    to[i + W * (j + W * k)] = channelValue(values[offset({i, j, k})]);
    }
    bool isPartConstant(int3 const& at, int3 const& size, Value const& constant) {
        Leaf const* const from = leaf(at);
        if (!from) return isSame(value(at), constant);
        return isSameBox(from->buffer().data() + offset(at), size, constant);
    }
    /// 4 points along each axis, all in one node.
    template <class To> void readAligned(int3 const& corner, To* to) {
        Leaf const* const from = leaf(corner);
        if (!from) {
            std::fill_n(to, 64, To(channelValue(value(corner))));
            return;
        }
        Value const* const values = from->buffer().data() + offset(corner);
        for (int y = 0; y < 4; ++y)
            for (int z = 0; z < 4; ++z)
                for (int x = 0; x < 4; ++x)
                    to[x + 4 * (y + 4 * z)] = channelValue(values[offset({x, y, z})]);
    }

    openvdb::tree::ValueAccessor<Tree const, false> m_accessor;
};

}  // namespace zel::detail
