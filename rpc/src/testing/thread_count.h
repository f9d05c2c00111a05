// SPDX-License-Identifier: Apache-2.0
// How many threads this process has now, for tests that check that threads
// start only when needed and are all gone afterwards.
#pragma once

#include <dirent.h>

#include <chrono>
#include <cstddef>
#include <thread>

namespace orvi {
namespace testing {

inline size_t thread_count() {
    size_t n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir)) {
            if (entry->d_name[0] != '.') ++n;
        }
        closedir(dir);
    }
    return n;
}

// The count to compare later counts with, once it has settled. A
// sanitizer's runtime may start a helper thread of its own along with the
// program's first thread, so one thread is started and joined first; a
// joined thread may still be listed for a moment (under an emulator, for
// longer), so the count is taken once three readings 10 ms apart agree.
inline size_t thread_count_baseline() {
    std::thread([] {}).join();
    size_t last = thread_count();
    for (int same = 0, tries = 0; same < 2 && tries < 200; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        const size_t now = thread_count();
        same = now == last ? same + 1 : 0;
        last = now;
    }
    return last;
}

// The count once it is `expected`, or after a second the count as it then
// is: for a check right after threads were joined, which may still be
// listed for a moment.
inline size_t thread_count_reaching(size_t expected) {
    size_t now = thread_count();
    for (int tries = 0; now != expected && tries < 100; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        now = thread_count();
    }
    return now;
}

}  // namespace testing
}  // namespace orvi
