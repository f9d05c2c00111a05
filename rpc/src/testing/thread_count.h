// How many threads this process has now, for tests that check that threads
// start only when needed and are all gone afterwards.
#pragma once

#include <dirent.h>

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

// The count to compare later counts with. A sanitizer's runtime may start a
// helper thread of its own along with the program's first thread: one thread
// is started and joined first, so that such a helper is already counted.
inline size_t thread_count_baseline() {
    std::thread([] {}).join();
    return thread_count();
}

}  // namespace testing
}  // namespace orvi
