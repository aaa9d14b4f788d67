#include "interrupt.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <system_error>
#include <thread>

namespace zel::python {

void interruptibly(std::function<void(std::stop_token const&)> const& work) {
    constexpr std::chrono::milliseconds kPeriod(20);
    std::mutex mutex;
    std::condition_variable changed;
    bool isDone = false;
    std::exception_ptr failure;
    auto const run = [&](std::stop_token const& stop) {
        try {
            work(stop);
        } catch (...) {
            failure = std::current_exception();
        }
        std::scoped_lock const lock(mutex);
        isDone = true;
        changed.notify_one();
    };

    std::optional<py::error_already_set> interruption;
    PyThreadState* state = PyEval_SaveThread();
    // The last local object: it joins the thread before the others end, also when the interpreter
    // shuts down and ends this thread.
    std::jthread thread;
    try {
        thread = std::jthread(run);
    } catch (std::system_error const&) {
        run({});  // without the means for another thread
    }
    for (;;) {
        {
            std::unique_lock lock(mutex);
            if (changed.wait_for(lock, kPeriod, [&] { return isDone; })) break;
        }
        if (interruption) continue;
        PyEval_RestoreThread(state);
        if (PyErr_CheckSignals() != 0) {
            interruption.emplace();
            thread.request_stop();
        }
        state = PyEval_SaveThread();
    }
    if (thread.joinable()) thread.join();
    PyEval_RestoreThread(state);
    if (interruption) throw std::move(*interruption);
    if (failure) std::rethrow_exception(failure);
}

}  // namespace zel::python
