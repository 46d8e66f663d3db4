// sched_test_util.h - small helpers shared by the work-item and timer suites.
#pragma once

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <condition_variable>
#include <mutex>
#include <thread>

// Whether a forked child of this (multi-threaded) process can start
// threads. ThreadSanitizer cannot follow it (its thread registry still holds
// the parent's threads, whose stacks the child reuses), qemu-user aborts
// on it, and under AddressSanitizer the child can inherit the sanitizer
// allocator's internal lock held by another thread and hang; elsewhere a
// probe child shows that it works. The tests whose
// children rebuild the pools are skipped where it does not.
inline bool ChildMayStartThreads() {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    return false;
#else
    static int probed = -1;
    if (probed < 0) {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            pthread_t t;
            if (pthread_create(&t, nullptr, [](void*) -> void* { return nullptr; }, nullptr) != 0) {
                _exit(1);
            }
            pthread_join(t, nullptr);
            _exit(0);
        }
        int status = 0;
        probed = pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) &&
                         WEXITSTATUS(status) == 0
                     ? 1
                     : 0;
    }
    return probed == 1;
#endif
}
#define KSPL_SKIP_UNLESS_CHILD_MAY_START_THREADS()                                          \
    do {                                                                                    \
        if (!ChildMayStartThreads()) {                                                      \
            GTEST_SKIP() << "a forked child cannot start threads here (sanitizer or " \
                            "qemu-user)";                                                   \
        }                                                                                   \
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
