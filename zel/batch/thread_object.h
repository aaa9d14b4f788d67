#pragma once

#include <utility>

namespace zel::detail {

/// The T of the calling thread; null before the first call of threadObject().
template <class T> struct ThreadPointer {
    // At a fixed distance from the thread's pointer, of which a process has room for some small
    // objects of libraries that it loads late. Else each access is a call.
    [[gnu::tls_model("initial-exec")]] static thread_local constinit inline T* object = nullptr;
};
template <class T> T* threadObjectIfAny() {
    return ThreadPointer<T>::object;
}

/// The T of the calling thread, constructed by the first call and destroyed when the thread ends.
/// Destructors of thread-local and of static objects may call this later still: the T that they get
/// is never destroyed. Throws what the constructor of T throws.
template <class T> T& threadObject() {
    T*& object = ThreadPointer<T>::object;
    static thread_local constinit bool ended = false;
    struct Owner {
        Owner() = default;
        Owner(Owner const&) = delete;
        Owner& operator=(Owner const&) = delete;
        ~Owner() {
            delete std::exchange(ThreadPointer<T>::object, nullptr);
            ended = true;
        }
    };
    if (!object) [[unlikely]] {
        object = new T;
        if (!ended) static thread_local Owner const owner;
    }
    return *object;
}

}  // namespace zel::detail
