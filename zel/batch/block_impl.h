#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "zel/batch/block.h"
#include "zel/batch/fusion/fusion.h"
#include "zel/batch/fusion/fusion_scope.h"
#include "zel/field/differences.h"
#include "zel_platform/quern_core/position_loop.h"

// How results are kept and found again, and how a batch goes through its blocks. Private to the
// sources of the interfaces and of the block.
namespace zel {

namespace detail {

inline bool isKnown(KeptResult const& kept, int place) {
    auto const p = static_cast<unsigned>(place);
    return kept.known[p / 64] >> (p % 64) & 1;
}
inline void setKnown(KeptResult& kept, int place) {
    auto const p = static_cast<unsigned>(place);
    kept.known[p / 64] |= std::uint64_t{1} << (p % 64);
}

template <class T> Columns<T> columnsOf(KeptResult const& kept) {
    Columns<T> columns;
    std::copy_n(kept.component, kComponents<T>, columns.component.begin());
    columns.lasting = true;
    columns.light = kept.light;
    return columns;
}

/// Brings a result that is elsewhere into its storage.
template <class T> void moveToStorage(BlockResult<T>& out, int count) {
    Columns<T> const from = out.columns;
    auto const to = out.writer();
    out.columns.light = from.light;
    for (std::size_t c = 0; c < from.component.size(); ++c)
        if (from.component[c] != to.component[c])
            std::copy_n(from.component[c], count, to.component[c]);
}

}  // namespace detail

template <bool gradient, class Interface>
auto Block::askKept(Interface const& node) -> Columns<Asked<gradient, Interface>> {
    using T = Asked<gradient, Interface>;
    detail::KeptResult* kept = find(&node, gradient);
    if (kept && kept->complete && !m_choice) return detail::columnsOf<T>(*kept);
    if (&m_positions != m_workspace.innermost) {
        // Other positions are worked on, and what is kept now would be given up with theirs.
        auto out = result<T>();
        call<gradient>(node, *this, out);
        return out.columns;
    }
    if (kept || m_choice) return complete<gradient>(node, kept);

    BlockResult<T> out(m_workspace.kept.floats(kComponents<T> * kBlockSize));
    call<gradient>(node, *this, out);
    if (!out.columns.lasting && !out.byPoints) detail::moveToStorage(out, m_count);
    out.columns.lasting = true;
    if (out.byPoints) return out.columns;
    kept = keep(&node, gradient, out.storage);
    kept->known.fill(~std::uint64_t{0});
    kept->complete = true;
    kept->light = out.columns.light;
    std::copy(out.columns.component.begin(), out.columns.component.end(), kept->component);
    return out.columns;
}

/// What is known of the node at these positions, and the rest anew.
template <bool gradient, class Interface>
auto Block::complete(Interface const& node, detail::KeptResult* kept)
    -> Columns<Asked<gradient, Interface>> {
    using T = Asked<gradient, Interface>;
    auto* const missing = static_cast<int*>(m_workspace.stack.allocate(kBlockSize * sizeof(int)));
    int missingCount = 0;
    for (int i = 0; i < m_count; ++i)
        if (!kept || !detail::isKnown(*kept, place(i))) missing[missingCount++] = i;
    auto const learn = [&](Block& block, BlockResult<T>& out) {
        call<gradient>(node, block, out);
        if (out.byPoints) return false;
        if (!kept) {
            kept = keep(&node, gradient, m_workspace.kept.floats(kComponents<T> * kBlockSize));
            for (int c = 0; c < kComponents<T>; ++c)
                kept->component[c] = kept->storage + c * kBlockSize;
            kept->light = out.columns.light;
        }
        for (int i = 0; i < block.m_count; ++i) {
            for (int c = 0; c < kComponents<T>; ++c)
                kept->storage[c * kBlockSize + block.place(i)] =
                    out.columns.component[static_cast<unsigned>(c)][i];
            detail::setKnown(*kept, block.place(i));
        }
        return true;
    };
    auto out = result<T>();
    if (missingCount == m_count) {
        learn(*this, out);
        return out.columns;
    }
    bool learned = true;
    if (missingCount > 0)
        withChoice(missing, missingCount, [&](Block& rest) {
            auto some = rest.template result<T>();
            learned = learn(rest, some);
        });
    if (!learned) {
        call<gradient>(node, *this, out);
        return out.columns;
    }
    if (!m_choice) {
        kept->complete = true;
        return detail::columnsOf<T>(*kept);
    }
    auto const write = out.writer();
    auto const from = detail::columnsOf<T>(*kept);
    for (int i = 0; i < m_count; ++i) write.set(i, from[place(i)]);
    out.columns.light = kept->light;
    return out.columns;
}

template <class Interface>
void Block::writeValues(Interface const& node, bool shared,
                        BlockResult<typename Interface::Value>& out) {
    if (shared || m_positions.keepAll)
        out.set(askKept<false>(node));
    else
        node.evalBlock(*this, out);
    if (!out.inStorage()) detail::moveToStorage(out, m_count);
    out.byPoints = false;  // it is the result of the node that asks
}

namespace detail {

/// Asks for `count` positions that are soon read. Inlined at once: g++ 12 drops a call of a
/// function that does no more than this.
ZEL_ALWAYS_INLINE inline void prefetch(Orvane::Math::float3 const* positions, std::size_t count) {
    constexpr std::size_t kStep = 64;
    auto const* const bytes = reinterpret_cast<char const*>(positions);
    for (std::size_t at = 0; at < count * sizeof(*positions); at += kStep)
        __builtin_prefetch(bytes + at, 0, 2);
}

/// The coordinates of positions as three arrays.
inline void splitPositions(int count, Orvane::Math::float3 const* p, float* x, float* y, float* z) {
    ZEL_INDEPENDENT
    for (int i = 0; i < count; ++i) {
        x[i] = p[i].x;
        y[i] = p[i].y;
        z[i] = p[i].z;
    }
}

/// The same, eight positions at a time. The eight of a coordinate are at other places in each of
/// three registers: two blends bring them together, and one permutation in order. A compiler takes
/// fifteen shuffles, most of them across the halves of a register.
ZEL_WIDE_TARGET inline void splitPositionsWide(int count, Orvane::Math::float3 const* p, float* x,
                                               float* y, float* z) {
    static_assert(sizeof(*p) == 3 * sizeof(float));
    int i = 0;
    for (; i + 8 <= count; i += 8) {
        // By memcpy, since the arrays may begin anywhere, and each by itself, so that all stay in
        // registers.
        Float8 a, b, c;
        auto const* const from = reinterpret_cast<std::byte const*>(p + i);
        std::memcpy(&a, from, sizeof a);
        std::memcpy(&b, from + sizeof a, sizeof a);
        std::memcpy(&c, from + 2 * sizeof a, sizeof a);
        // a: x0 y0 z0 x1 y1 z1 x2 y2; b: z2 x3 y3 z3 x4 y4 z4 x5; c: y5 z5 x6 y6 z6 x7 y7 z7
        Float8 const xOfAb = __builtin_shufflevector(a, b, 0, 9, 2, 3, 12, 5, 6, 15),
                     yOfBc = __builtin_shufflevector(b, c, 8, 1, 2, 11, 4, 5, 14, 7),
                     zOfAb = __builtin_shufflevector(a, b, 8, 1, 2, 11, 4, 5, 14, 7);
        Float8 const xs = __builtin_shufflevector(xOfAb, c, 0, 1, 10, 3, 4, 13, 6, 7),
                     ys = __builtin_shufflevector(yOfBc, a, 0, 9, 2, 3, 12, 5, 6, 15),
                     zs = __builtin_shufflevector(zOfAb, c, 0, 9, 2, 3, 12, 5, 6, 15);
        Float8 const allX = __builtin_shufflevector(xs, xs, 0, 3, 6, 1, 4, 7, 2, 5),
                     allY = __builtin_shufflevector(ys, ys, 1, 4, 7, 2, 5, 0, 3, 6),
                     allZ = __builtin_shufflevector(zs, zs, 2, 5, 0, 3, 6, 1, 4, 7);
        std::memcpy(x + i, &allX, sizeof allX);
        std::memcpy(y + i, &allY, sizeof allY);
        std::memcpy(z + i, &allZ, sizeof allZ);
    }
    splitPositions(count - i, p + i, x + i, y + i, z + i);
}

/// Evaluates a field at positions `begin` to `end` of an array, in blocks; each of the two results
/// may be null. `batch` is a number that the ranges of one batch have in common, and no other.
template <class Interface>
void evalRange(Interface const& field, Orvane::Math::float3 const* positions,
               typename Interface::Value* values, typename Interface::Gradient* gradients,
               std::size_t begin, std::size_t end, std::uint64_t batch) {
    Workspace& workspace = Workspace::local();
    Workspace::Run const run(workspace);
    FusionScope const fusions(workspace, field, batch, end - begin);
    for (std::size_t at = begin; at < end; at += kBlockSize) {
        int const count = static_cast<int>(std::min(end - at, std::size_t{kBlockSize}));
        Positions state;
        state.first = static_cast<long long>(at);
        state.keepAll = gradients != nullptr;
        Block::Kept const kept(workspace, state);
        Arena::Mark const bottom = workspace.stack.mark();
        float* const x = workspace.stack.floats(3 * kBlockSize);
        float *const y = x + kBlockSize, *const z = y + kBlockSize;
        Block block(workspace, state, count, x, y, z);
        Block::Frame const frame(block, bottom);
        (Quern::wideVectors ? splitPositionsWide : splitPositions)(count, positions + at, x, y, z);
        prefetch(positions + at + count,
                 std::min(end - at - static_cast<std::size_t>(count), std::size_t{kBlockSize}));
        if constexpr (kComponents<typename Interface::Value> == 1)
            if (auto* const fusion = values && gradients ? fusions.dualsOf(&field) : nullptr) {
                auto const [v, g] = fusion->runDuals(block);
                std::copy_n(v.component[0], count, values + at);
                Quern::forEachPosition(count, [g = g, to = gradients + at](int i)
                                                  ZEL_ALWAYS_INLINE { to[i] = g[i]; });
                continue;
            }
        if (values) {
            if constexpr (kComponents<typename Interface::Value> == 1) {
                BlockResult<float> out(values + at);
                block.writeValues(field, false, out);
            } else {
                auto const v = block.values(field);
                Quern::forEachPosition(count, [=, to = values + at](int i)
                                                  ZEL_ALWAYS_INLINE { to[i] = v[i]; });
            }
        }
        if (gradients) {
            auto const g = block.gradients(field);
            Quern::forEachPosition(count, [=, to = gradients + at](int i)
                                              ZEL_ALWAYS_INLINE { to[i] = g[i]; });
        }
    }
}

}  // namespace detail
}  // namespace zel
