// sched_test_util.h - small helpers shared by the work-item and timer suites.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

// A forked child that starts threads is what these suites test; the thread
// sanitizer refuses it by default.
#if defined(__SANITIZE_THREAD__)
extern "C" const char* __tsan_default_options() { return "die_after_fork=0"; }
#endif

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
