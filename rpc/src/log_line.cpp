// SPDX-License-Identifier: Apache-2.0
#include "orvi/log_line.h"

#include <unistd.h>

#include <cerrno>

namespace orvi {

void write_line(int fd, const std::string& text) {
    std::string line;
    line.reserve(text.size() + 1);
    line += text;
    line += '\n';
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t r = ::write(fd, line.data() + done, line.size() - done);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return;
        done += static_cast<size_t>(r);
    }
}

}  // namespace orvi
