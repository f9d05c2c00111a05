// How many threads this process has now, for tests that check that threads
// start only when needed and are all gone afterwards.
#pragma once

#include <dirent.h>

#include <cstddef>

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

}  // namespace testing
}  // namespace orvi
