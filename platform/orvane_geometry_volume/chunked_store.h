#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace ORV::TileTree3D::Internal {

/// A list that grows and shrinks at its end and never moves an element: it allocates chunks of
/// 2^Log elements.
template <class T, int Log> class ChunkedStore {
public:
    long long size() const { return m_size; }
    long long capacity() const { return static_cast<long long>(m_chunks.size()) << Log; }

    T& operator[](long long i) { return m_chunks[chunk(i)][place(i)]; }
    T const& operator[](long long i) const { return m_chunks[chunk(i)][place(i)]; }

    /// Allocates room for `count` more elements, so that adding them cannot fail.
    void reserveMore(long long count) {
        while (capacity() < m_size + count)
            m_chunks.push_back(std::make_unique<T[]>(std::size_t{1} << Log));
    }
    T& add(T const& value) {
        reserveMore(1);
        T& added = (*this)[m_size++];
        return added = value;
    }
    /// Removes the elements from index `count` on.
    void truncate(long long count) { m_size = count; }

    long long bytes() const { return capacity() * static_cast<long long>(sizeof(T)); }

private:
    static std::size_t chunk(long long i) { return static_cast<std::size_t>(i) >> Log; }
    static std::size_t place(long long i) {
        return static_cast<std::size_t>(i) & ((std::size_t{1} << Log) - 1);
    }

    std::vector<std::unique_ptr<T[]>> m_chunks;
    long long m_size = 0;
};

}  // namespace ORV::TileTree3D::Internal
