#include "interrupt.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace zel::python {

namespace {

std::atomic<int> atWork = 0;
/// The part of `atWork` that this thread counts: all that a child forked by the thread has.
thread_local int atWorkHere = 0;
std::atomic<bool> isShuttingDown = false;

/// A thread that does one piece of work after another. It waits in between, and never ends.
class Helper {
public:
    using Work = std::function<void(std::stop_token const&)>;

    Helper() {
        pthread_attr_t ofThread;
        pthread_attr_init(&ofThread);
        pthread_attr_setdetachstate(&ofThread, PTHREAD_CREATE_DETACHED);
        // Enough for the deepest tree, whatever the limit of the process.
        constexpr std::size_t kStack = std::size_t{8} << 20;
        pthread_attr_setstacksize(&ofThread, kStack);
        auto const begin = [](void* self) -> void* {
            static_cast<Helper*>(self)->run();
            return nullptr;
        };
        pthread_t thread{};
        int const failure = pthread_create(&thread, &ofThread, begin, this);
        pthread_attr_destroy(&ofThread);
        if (failure != 0)
            throw std::system_error(failure, std::generic_category(), "zel: a thread");
    }
    Helper(Helper const&) = delete;
    Helper& operator=(Helper const&) = delete;

    void start(Work const& work) {
        std::scoped_lock const lock(m_mutex);
        m_stop = std::stop_source();
        m_failure = nullptr;
        m_work = &work;
        m_changed.notify_all();
    }
    /// Waits until the work is done or the time is over, and returns whether it is done.
    bool waitFor(std::chrono::milliseconds time) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, time, [this] { return !m_work; });
    }
    void stop() { m_stop.request_stop(); }
    std::exception_ptr failure() { return std::exchange(m_failure, nullptr); }

private:
    [[noreturn]] void run() {
        std::unique_lock lock(m_mutex);
        for (;;) {
            m_changed.wait(lock, [this] { return m_work; });
            lock.unlock();
            try {
                (*m_work)(m_stop.get_token());
            } catch (...) {
                m_failure = std::current_exception();
            }
            lock.lock();
            m_work = nullptr;
            m_changed.notify_all();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    Work const* m_work = nullptr;
    std::stop_source m_stop;
    std::exception_ptr m_failure;
};

/// The helpers that wait. A new thread would begin without what an earlier evaluation has prepared,
/// and on a busy machine a time slice later.
struct HelperPool {
    std::mutex mutex;
    std::size_t count = 0;
    std::vector<Helper*> waiting;  ///< with room for all
};

HelperPool*& helperPool() {
    static auto* pool = new HelperPool;
    return pool;
}

/// A child of a fork has no thread but the one that forked.
void beginChild() {
    helperPool() = new HelperPool;
    atWork = atWorkHere;
}

/// A helper while it is in use. Waits for the end of its work, also if this thread is ended.
class HelperInUse {
public:
    HelperInUse() : m_pool(helperPool()) {
        std::unique_lock lock(m_pool->mutex);
        if (m_pool->waiting.empty()) {
            m_pool->waiting.reserve(++m_pool->count);
            lock.unlock();
            m_helper = new Helper;  // lives as long as its thread
            return;
        }
        m_helper = m_pool->waiting.back();
        m_pool->waiting.pop_back();
    }
    ~HelperInUse() {
        m_helper->stop();
        while (!m_helper->waitFor(std::chrono::hours(1))) {
        }
        std::scoped_lock const lock(m_pool->mutex);
        m_pool->waiting.push_back(m_helper);
    }
    HelperInUse(HelperInUse const&) = delete;
    HelperInUse& operator=(HelperInUse const&) = delete;

    Helper* operator->() const { return m_helper; }

private:
    HelperPool* m_pool;
    Helper* m_helper;
};

void beginShutDown() {
    isShuttingDown = true;
    PyThreadState* const state = PyEval_SaveThread();
    // Functions that wait for another thread are given up after a while.
    for (int i = 0; atWork > 0 && i < 5000; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    PyEval_RestoreThread(state);
}

}  // namespace

AtWork::AtWork() {
    ++atWork;
    ++atWorkHere;
    if (!isShuttingDown) return;
    end();
    throw std::runtime_error("zel: the interpreter shuts down");
}

void AtWork::end() {
    --atWork;
    --atWorkHere;
}

void watchShutDown() {
    pthread_atfork(nullptr, nullptr, beginChild);
    py::module_::import("atexit").attr("register")(py::cpp_function(beginShutDown));
}

void interruptibly(std::function<void(std::stop_token const&)> const& work) {
    constexpr std::chrono::milliseconds kPeriod(20);
    std::optional<AtWork> counted(std::in_place);
    PyObject *raised = nullptr, *value = nullptr, *trace = nullptr;  // by a handler
    std::exception_ptr failure;
    PyThreadState* state = nullptr;
    {
        HelperInUse const helper;
        helper->start(work);
        // Nothing throws without the lock, nor with the lock while the helper may need it.
        state = PyEval_SaveThread();
        while (!helper->waitFor(kPeriod)) {
            if (isShuttingDown) helper->stop();
            if (isShuttingDown || raised) continue;
            PyEval_RestoreThread(state);
            if (PyErr_CheckSignals() != 0) {
                PyErr_Fetch(&raised, &value, &trace);
                helper->stop();
            }
            state = PyEval_SaveThread();
        }
        failure = helper->failure();
    }
    counted.reset();
    PyEval_RestoreThread(state);
    if (raised) {
        PyErr_Restore(raised, value, trace);
        throw py::error_already_set();
    }
    if (failure) std::rethrow_exception(failure);
}

}  // namespace zel::python
