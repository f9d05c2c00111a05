// SPDX-License-Identifier: Apache-2.0
// Polling with a deadline, for conditions that another process or thread
// makes true in its own time.
#pragma once

#include <chrono>
#include <thread>

namespace support {

// Asks `holds` every poll_ms until it answers true; false once timeout_ms
// have passed without that.
template <class Predicate>
bool eventually(Predicate&& holds, int timeout_ms = 10000, int poll_ms = 1) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!holds()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(poll_ms));
    }
    return true;
}

}  // namespace support
