#pragma once

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <type_traits>
#include <utility>

#include "zel_platform/quern_core/expect.h"
#include "zel_platform/quern_core/type_rep.h"

namespace Quern {

/// A growable array. Sizes and indices are signed 64-bit. A copy copies the elements; a move takes
/// the storage and leaves the source empty. A release build does not check indices. Any number of
/// threads may read one array while no thread writes it.
template <class T> class Array {
public:
    Array() noexcept = default;

    /// Makes an array of `count` value-initialised elements. A count that is negative or too large
    /// to address throws std::length_error, as in all operations that take a size.
    explicit Array(long long count) : Array() {
        build(count, [](T* first, long long n) { std::uninitialized_value_construct_n(first, n); });
    }
    Array(long long count, T const& value) : Array() {
        build(count, [&](T* first, long long n) { std::uninitialized_fill_n(first, n, value); });
    }
    /// Makes an array of `count` uninitialised elements. Each must be written before it is read.
    static Array forOverwrite(long long count) requires std::is_trivially_destructible_v<T> {
        Array array;
        array.build(count, [](T*, long long) {});
        return array;
    }
    Array(std::initializer_list<T> list) : Array() { buildCopy(list.begin(), ssize(list)); }
    Array(Array const& other) : Array() { buildCopy(other.elements, other.length); }
    Array(Array&& other) noexcept : Array() { swap(other); }

    ~Array() {
        std::destroy_n(elements, length);
        rep->deallocate(elements, room);
    }

    Array& operator=(Array const& other) {
        if (this != &other) Array(other).swap(*this);
        return *this;
    }
    Array& operator=(Array&& other) noexcept {
        if (this != &other) Array(std::move(other)).swap(*this);
        return *this;
    }

    long long size() const noexcept { return length; }
    long long capacity() const noexcept { return room; }
    bool empty() const noexcept { return length == 0; }
    T* data() noexcept { return elements; }
    T const* data() const noexcept { return elements; }
    T* begin() noexcept { return elements; }
    T const* begin() const noexcept { return elements; }
    T* end() noexcept { return elements + length; }
    T const* end() const noexcept { return elements + length; }

    T& operator[](long long i) noexcept {
        ZEL_EXPECT(0 <= i && i < length);
        return elements[i];
    }
    T const& operator[](long long i) const noexcept {
        ZEL_EXPECT(0 <= i && i < length);
        return elements[i];
    }

    /// Adds a copy of `value`, which may be an element of this array.
    void push_back(T value) {
        if (length == room) reserve(std::max(2 * room, 8LL));
        std::construct_at(elements + length, std::move(value));
        ++length;
    }

    /// Removes elements from the end, or appends value-initialised elements.
    void resize(long long count) {
        if (count > length) {
            reserve(count);
            std::uninitialized_value_construct_n(elements + length, count - length);
        } else {
            if (count < 0) rep->allocate(count);  // throws
            std::destroy_n(elements + count, length - count);
        }
        length = count;
    }

    void reserve(long long count) {
        if (count < 0) rep->allocate(count);  // throws
        if (count <= room) return;
        Array larger;
        larger.elements = static_cast<T*>(rep->allocate(count));
        larger.room = count;
        std::uninitialized_move_n(elements, length, larger.elements);
        larger.length = length;
        swap(larger);
    }

    void swap(Array& other) noexcept {
        std::swap(elements, other.elements);
        std::swap(length, other.length);
        std::swap(room, other.room);
    }

    bool operator==(Array const& other) const {
        return std::equal(begin(), end(), other.begin(), other.end());
    }

private:
    static long long ssize(std::initializer_list<T> list) {
        return static_cast<long long>(list.size());
    }

    // Constructors delegate to Array() before they call this, so that the destructor runs, and
    // frees the storage, if the constructor of an element throws.
    template <class Construct> void build(long long count, Construct const& construct) {
        elements = static_cast<T*>(rep->allocate(count));
        room = count;
        construct(elements, count);
        length = count;
    }
    void buildCopy(T const* from, long long count) {
        build(count, [&](T* first, long long n) { std::uninitialized_copy_n(from, n, first); });
    }

    T* elements = nullptr;
    long long length = 0;
    long long room = 0;
    Internal::UntypedTypeRep const* rep = &Internal::typeRep<T>;
};

}  // namespace Quern
