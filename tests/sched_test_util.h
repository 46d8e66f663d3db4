// sched_test_util.h - small helpers shared by the work-item and timer suites.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// ThreadSanitizer does not support a forked child of a multi-threaded
// process that starts threads (its thread registry still holds the
// parent's threads, whose stacks the child reuses). The tests whose children
// rebuild the pools run in the other presets.
#if defined(__SANITIZE_THREAD__)
constexpr bool kChildMayStartThreads = false;
#else
constexpr bool kChildMayStartThreads = true;
#endif
#define KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS()                                   \
    do {                                                                             \
        if (!kChildMayStartThreads) {                                                \
            GTEST_SKIP() << "the thread sanitizer cannot follow threads started "    \
                            "in a forked child";                                    \
        }                                                                            \
    } while (0)

// Polls `pred` every millisecond until it holds or `seconds` have passed.
template <class Pred>
bool WaitFor(Pred pred, double seconds = 30.0) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// A one-way gate: routines wait on it until the test opens it.
class Gate {
public:
    void Wait() {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [this] { return open_; });
    }
    void Open() {
        {
            std::lock_guard<std::mutex> lock(m_);
            open_ = true;
        }
        cv_.notify_all();
    }

private:
    std::mutex m_;
    std::condition_variable cv_;
    bool open_ = false;
};
