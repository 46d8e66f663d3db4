// wait_for.h - the one polling helper of the suites (also used by the soak
// program and the object-store fuzz harness, so it needs nothing but the
// standard library).
#pragma once

#include <chrono>
#include <thread>

// Polls `pred` every 200 us until it holds or `seconds` have passed, and
// says whether it held. The default bound is generous on purpose: the
// suites run under sanitizers and qemu-i386, and only a lost wake-up or a
// leaked worker should ever reach it.
template <class Pred>
bool WaitFor(Pred pred, double seconds = 30.0) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) return pred();
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}
