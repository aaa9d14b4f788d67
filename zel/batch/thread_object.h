#pragma once

#include <cxxabi.h>

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
/// Destructors of thread-local objects may call this later still, and get another T, which is
/// destroyed after them; that of a static object is not destroyed. Throws what the constructor of T
/// throws.
template <class T> T& threadObject() {
    T*& object = ThreadPointer<T>::object;
    if (!object) [[unlikely]] {
        object = new T;
        // As for a thread_local object, which cannot be constructed twice. The address tells which
        // library must stay loaded.
        static constinit char inThisLibrary = 0;
        abi::__cxa_thread_atexit(
            [](void*) { delete std::exchange(ThreadPointer<T>::object, nullptr); }, nullptr,
            &inThisLibrary);
    }
    return *object;
}

}  // namespace zel::detail
