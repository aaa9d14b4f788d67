#pragma once

#include <pybind11/pybind11.h>

#include <exception>
#include <functional>
#include <stop_token>

// Work without the global interpreter lock, how the user interrupts it, and its end when the
// interpreter shuts down.
namespace zel::python {

namespace py = pybind11;

/// Calls `work` without the interpreter's lock, and passes its exception on with the lock. The lock
/// is not taken by a destructor: an interpreter that shuts down ends the thread there by unwinding
/// its stack.
template <class Work> void withoutLock(Work const& work) {
    std::exception_ptr failure;
    PyThreadState* const state = PyEval_SaveThread();
    try {
        work();
    } catch (...) {
        failure = std::current_exception();
    }
    PyEval_RestoreThread(state);
    if (failure) std::rethrow_exception(failure);
}

/// Handles signals that have arrived. Throws what a handler raises, such as KeyboardInterrupt.
inline void handleSignals() {
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

/// Calls `work` in another thread, while the calling thread handles signals 50 times a second. If a
/// handler raises, such as that of Ctrl-C, asks `work` to stop, waits for its end, and passes the
/// handler's exception on; else that of `work`.
void interruptibly(std::function<void(std::stop_token const&)> const& work);

/// Work that must end before the interpreter does: oneTBB does not survive the end of a thread that
/// waits for the interpreter's lock. Throws std::runtime_error while the interpreter shuts down.
class AtWork {
public:
    AtWork();
    ~AtWork() { end(); }
    AtWork(AtWork const&) = delete;
    AtWork& operator=(AtWork const&) = delete;

private:
    static void end();
};

/// Has all work end before the interpreter shuts down, and a forked child know only its own work.
void watchShutDown();

}  // namespace zel::python
