// Brief busy-waiting before a thread parks. An answer on loopback or USB is
// tens of microseconds away, about what it costs to wake a parked thread, so
// a short spin saves a wake-up on every round trip and costs little when the
// answer is slow: the caller parks as before once the budget is spent.
#pragma once

#include <sched.h>

#include <chrono>

namespace orvi {

inline void cpu_relax() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#endif
}

// Returns true as soon as ready() does, false once `budget` has passed.
// Yields between checks, so that a spinning thread never keeps the thread it
// waits for (often the socket reader) off a core.
template <class Ready>
bool spin_until(Ready ready, std::chrono::microseconds budget) {
    const auto deadline = std::chrono::steady_clock::now() + budget;
    for (unsigned i = 1;; ++i) {
        if (ready()) return true;
        if (i % 4 == 0) {
            sched_yield();
            if (std::chrono::steady_clock::now() >= deadline) return false;
        } else {
            cpu_relax();
        }
    }
}

}  // namespace orvi
