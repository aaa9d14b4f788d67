#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "zel_platform/platform_api.h"
#include "zel_platform/quern_core/expect.h"

namespace Quern {

namespace Internal {

/// The state that all pointers to an object share: its use count, and how to copy and destroy it.
class ZEL_PLATFORM_API ControlBlock {
public:
    /// Returns a new block, with use count 1, that holds a copy of the object, made by the copy
    /// constructor of the object's own type. Throws std::logic_error if that type has none.
    virtual ControlBlock* clone() const = 0;

    /// Deletes the object and the block. Must not use object(), which may have been overwritten.
    virtual void destroy() noexcept = 0;

    void acquire() noexcept { count.fetch_add(1, std::memory_order_relaxed); }

    void release() noexcept {
        // The only owner needs no atomic write, since no other thread can change the count.
        if (useCount() == 1 || count.fetch_sub(1, std::memory_order_acq_rel) == 1)
            destroyInBoundedStack();
    }

    std::int64_t useCount() const noexcept { return count.load(std::memory_order_acquire); }
    void* object() const noexcept { return managed; }

protected:
    explicit ControlBlock(void* object) noexcept : count(1), managed(object) {}
    ~ControlBlock() = default;

private:
    /// Calls destroy() for a block that has no owner left. Deep inside nested calls it queues the
    /// block, which the outermost call then destroys.
    void destroyInBoundedStack() noexcept;

    std::atomic<std::int64_t> count;
    void* managed;  // the object; in a queued block, the next block of the queue
};

/// A control block and its object in one allocation.
template <class T> class ObjectBlock final : public ControlBlock {
public:
    template <class... Args>
    explicit ObjectBlock(std::in_place_t, Args&&... args)
        : ControlBlock(&value), value(std::forward<Args>(args)...) {}

    ControlBlock* clone() const override {
        if constexpr (std::is_copy_constructible_v<T>)
            return new ObjectBlock(std::in_place, value);
        else
            throw std::logic_error(std::string("Quern::Ptr::clone: no copy constructor in ") +
                                   typeid(T).name());
    }

    void destroy() noexcept override { delete this; }

private:
    T value;
};

}  // namespace Internal

/// A shared pointer of two words: the object and its control block. A copy increases the use count;
/// the owner that decreases it to 0 destroys the object. A move leaves the source empty. Distinct
/// pointers to one object may be used from any number of threads; a pointer must not be written
/// while another thread reads it.
///
/// Releasing needs a bounded stack, however long a chain of objects that own each other is. Where
/// nested destructors release pointers more than 64 levels deep, the object is destroyed after the
/// outermost object, before the outermost release returns. A Ptr must therefore not own a lock.
template <class T> class Ptr {
public:
    using Element = T;

    constexpr Ptr() noexcept = default;
    constexpr Ptr(std::nullptr_t) noexcept {}

    Ptr(Ptr const& other) noexcept : pointee(other.pointee), block(other.block) {
        if (block) block->acquire();
    }
    Ptr(Ptr&& other) noexcept
        : pointee(std::exchange(other.pointee, nullptr)),
          block(std::exchange(other.block, nullptr)) {}

    template <class U>
    requires(!std::same_as<U, T> && std::convertible_to<U*, T*>) Ptr(Ptr<U> const& other)
    noexcept : pointee(other.pointee), block(other.block) {
        if (block) block->acquire();
    }
    template <class U>
    requires(!std::same_as<U, T> && std::convertible_to<U*, T*>) Ptr(Ptr<U>&& other)
    noexcept
        : pointee(std::exchange(other.pointee, nullptr)),
          block(std::exchange(other.block, nullptr)) {}

    ~Ptr() {
        if (block) block->release();
    }

    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the comparison covers it
    Ptr& operator=(Ptr const& other) noexcept {
        if (block != other.block || pointee != other.pointee) Ptr(other).swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& other) noexcept {
        if (this != &other) Ptr(std::move(other)).swap(*this);
        return *this;
    }

    T* get() const noexcept { return pointee; }
    T* operator->() const noexcept {
        ZEL_EXPECT(pointee);
        return pointee;
    }
    std::add_lvalue_reference_t<T> operator*() const noexcept requires(!std::is_void_v<T>) {
        ZEL_EXPECT(pointee);
        return *pointee;
    }
    explicit operator bool() const noexcept { return pointee != nullptr; }

    /// The number of pointers that share the object; 0 for an empty pointer.
    std::int64_t useCount() const noexcept { return block ? block->useCount() : 0; }

    /// Returns a pointer to a copy of the object, made by the copy constructor of the object's own
    /// type; an empty pointer for an empty one. Throws the exceptions of that constructor, and
    /// std::logic_error if the type has none.
    Ptr<std::remove_const_t<T>> clone() const {
        Ptr<std::remove_const_t<T>> copy;
        if (!block) return copy;
        // The T in the object has the same offset in the copy.
        auto const offset =
            reinterpret_cast<char const*>(pointee) - static_cast<char const*>(block->object());
        copy.block = block->clone();
        copy.pointee = reinterpret_cast<std::remove_const_t<T>*>(
            static_cast<char*>(copy.block->object()) + offset);
        return copy;
    }

    void reset() noexcept { Ptr().swap(*this); }

    void swap(Ptr& other) noexcept {
        std::swap(pointee, other.pointee);
        std::swap(block, other.block);
    }

    template <class U> bool operator==(Ptr<U> const& other) const noexcept {
        return pointee == other.get();
    }
    bool operator==(std::nullptr_t) const noexcept { return pointee == nullptr; }

private:
    template <class U> friend class Ptr;
    template <class U, class... Args> friend Ptr<U> makePtr(Args&&...);
    template <class To, class From> friend Ptr<To> dynamicPtrCast(Ptr<From> const&) noexcept;

    T* pointee = nullptr;
    Internal::ControlBlock* block = nullptr;
};

/// Makes an object and its control block, in one allocation, with use count 1. Throws the
/// exceptions of the constructor, and std::bad_alloc.
template <class T, class... Args> Ptr<T> makePtr(Args&&... args) {
    using Object = std::remove_const_t<T>;
    Ptr<T> made;
    auto* block = new Internal::ObjectBlock<Object>(std::in_place, std::forward<Args>(args)...);
    made.block = block;
    made.pointee = static_cast<Object*>(block->object());
    return made;
}

/// Returns a pointer that shares the object of `from` if the object is a To, else an empty pointer.
template <class To, class From> Ptr<To> dynamicPtrCast(Ptr<From> const& from) noexcept {
    Ptr<To> to;
    if (To* const object = dynamic_cast<To*>(from.pointee)) {
        from.block->acquire();
        to.pointee = object;
        to.block = from.block;
    }
    return to;
}

namespace Internal {

/// The default object of a class that is registered in the runtime. Each such class specialises
/// this function.
template <class T> Ptr<T> const& getDefaultClass();

}  // namespace Internal

}  // namespace Quern
