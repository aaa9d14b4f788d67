#pragma once

#include <utility>

namespace zel::detail {

/// A T of the calling thread, made on first use and destroyed when the thread ends. It may be asked
/// for even then, by the destructors of a thread's objects and of static ones: a T that is made so
/// late is left alone. Throws what making a T throws.
template <class T> T& threadObject() {
    static thread_local constinit T* object = nullptr;
    static thread_local constinit bool ended = false;
    struct Owner {
        Owner() = default;
        Owner(Owner const&) = delete;
        Owner& operator=(Owner const&) = delete;
        ~Owner() {
            delete std::exchange(object, nullptr);
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
