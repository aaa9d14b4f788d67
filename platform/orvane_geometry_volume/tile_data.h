#pragma once

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "zel_platform/orvane_geometry_volume/traits.h"
#include "zel_platform/quern_core/expect.h"
#include "zel_platform/quern_core/type_rep.h"

namespace ORV::TileTree3D {

/// Allocates storage aligned to a cache line. Throws std::bad_alloc and std::length_error.
template <class T> struct TileDataAllocator {
    using value_type = T;

    TileDataAllocator() noexcept = default;
    template <class U> TileDataAllocator(TileDataAllocator<U> const&) noexcept {}

    T* allocate(std::size_t count) {
        return static_cast<T*>(Quern::Internal::typeRep<T>.allocate(static_cast<long long>(count)));
    }
    void deallocate(T* storage, std::size_t count) noexcept {
        Quern::Internal::typeRep<T>.deallocate(storage, static_cast<long long>(count));
    }
    template <class U> bool operator==(TileDataAllocator<U> const&) const noexcept { return true; }
};

/// The order of a tile's samples in storage: W samples along each axis and a ring of H around them,
/// x fastest, from the lowest corner of the ring.
template <int W, int H> struct TileLayout {
    static constexpr int kWidth = W + 2 * H;
    static constexpr int kCount = kWidth * kWidth * kWidth;

    /// The flat index of (i, j, k), each from -H to W - 1 + H.
    static constexpr int flat(int i, int j, int k) {
        ZEL_EXPECT(-H <= i && i < W + H && -H <= j && j < W + H && -H <= k && k < W + H);
        return (i + H) + kWidth * ((j + H) + kWidth * (k + H));
    }
};

/// A read-only view of the samples of one tile, or of no data. Samples may be read only if there is
/// data; a release build does not check this, nor indices.
template <class T, int W, int H, int X> class ConstTileData {
public:
    using Layout = TileLayout<W, H>;
    using Vector = std::vector<T, TileDataAllocator<T>>;

    ConstTileData() noexcept = default;
    /// Refers to the elements of a vector, which must outlive the view and must not reallocate; to
    /// no data if the vector is null or holds fewer elements than a tile.
    explicit ConstTileData(Vector* elements) noexcept
        : m_flat(elements && elements->size() >= Layout::kCount ? elements->data() : nullptr) {}
    explicit ConstTileData(T const* flat) noexcept : m_flat(flat) {}
    ConstTileData(ConstTileData const&) noexcept = default;
    ConstTileData(ConstTileData&&) noexcept = default;
    ConstTileData& operator=(ConstTileData const&) noexcept = default;
    ConstTileData& operator=(ConstTileData&&) noexcept = default;
    virtual ~ConstTileData() = default;

    /// False if the view refers to no data.
    operator bool() const noexcept { return m_flat != nullptr; }
    T const& operator()(int flat) const {
        ZEL_EXPECT(m_flat && 0 <= flat && flat < Layout::kCount);
        return m_flat[flat];
    }
    T const& operator()(int i, int j, int k) const { return (*this)(Layout::flat(i, j, k)); }
    T const& operator()(int3 const& p) const { return (*this)(p.x, p.y, p.z); }
    T const* data() const noexcept { return m_flat; }

private:
    T const* m_flat = nullptr;
};

/// The writable samples of one tile: in storage of its own, in a vector of the caller or in a
/// channel; or no data.
template <class T, int W, int H, int X> class TileData {
public:
    using Layout = TileLayout<W, H>;
    using Vector = std::vector<T, TileDataAllocator<T>>;

    TileData() noexcept = default;
    /// Allocates storage of its own for `count` elements, which are 0; no data for a count of 0.
    /// Throws std::invalid_argument for any other count below that of a tile's samples.
    explicit TileData(int count) {
        if (count == 0) return;
        if (count < Layout::kCount)
            throw std::invalid_argument("TileData: " + std::to_string(count) +
                                        " elements, and a tile has " +
                                        std::to_string(Layout::kCount));
        m_own = std::make_unique<Vector>(static_cast<std::size_t>(count));
        refer(m_own.get());
    }
    /// Refers to a vector, which must outlive this and must not reallocate; to no data if the
    /// vector is null or holds fewer elements than a tile.
    explicit TileData(Vector* elements) noexcept { refer(elements); }
    /// Copies storage that `other` owns; otherwise refers to the same samples.
    TileData(TileData const& other) : m_flat(other.m_flat), m_elements(other.m_elements) {
        if (!other.m_own) return;
        bool const own = other.m_flat == other.m_own->data();
        m_own = std::make_unique<Vector>(*other.m_own);
        if (own) refer(m_own.get());
    }
    TileData(TileData&& other) noexcept { swap(other); }
    TileData& operator=(TileData const& other) {
        if (this != &other) TileData(other).swap(*this);
        return *this;
    }
    TileData& operator=(TileData&& other) noexcept {
        if (this != &other) TileData(std::move(other)).swap(*this);
        return *this;
    }
    virtual ~TileData() = default;

    /// Refers to the samples of a tile at `flat`, or to no data if that is null.
    virtual void setFlatPointer(T* flat) {
        m_flat = flat;
        m_elements = nullptr;
    }
    /// The elements that the vector holds after the samples of the tile; null if there is no
    /// vector.
    virtual T* beginElementsAdded() { return m_elements ? m_flat + Layout::kCount : nullptr; }
    virtual T* endElementsAdded() { return m_elements ? m_flat + m_elements->size() : nullptr; }
    virtual long long elementsAddedSize() const {
        return m_elements ? static_cast<long long>(m_elements->size()) - Layout::kCount : 0;
    }
    /// Truncates the vector to the samples of the tile.
    virtual void clearElementsAdded() {
        if (m_elements) m_elements->resize(Layout::kCount);
    }

    explicit operator bool() const noexcept { return m_flat != nullptr; }
    T& operator()(int i, int j, int k) {
        ZEL_EXPECT(m_flat);
        return m_flat[Layout::flat(i, j, k)];
    }
    T const& operator()(int i, int j, int k) const {
        ZEL_EXPECT(m_flat);
        return m_flat[Layout::flat(i, j, k)];
    }
    T* data() noexcept { return m_flat; }
    T const* data() const noexcept { return m_flat; }

    void swap(TileData& other) noexcept {
        std::swap(m_flat, other.m_flat);
        std::swap(m_elements, other.m_elements);
        std::swap(m_own, other.m_own);
    }

private:
    void refer(Vector* elements) noexcept {
        bool const enough = elements && elements->size() >= Layout::kCount;
        m_flat = enough ? elements->data() : nullptr;
        m_elements = enough ? elements : nullptr;
    }

    T* m_flat = nullptr;
    Vector* m_elements = nullptr;  // the vector that m_flat points into, if any
    std::unique_ptr<Vector> m_own;
};

}  // namespace ORV::TileTree3D
