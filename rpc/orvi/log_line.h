// SPDX-License-Identifier: Apache-2.0
// Diagnostics that several threads write at once: each line leaves in one
// write(2), so lines from concurrent connections never mix mid-line.
// Public header: includes only other public headers.
#pragma once

#include <string>

namespace orvi {

// Writes `text` and a line end to `fd`. Errors are ignored: a reader of our
// diagnostics that went away must not stop the program.
void write_line(int fd, const std::string& text);

inline void log_error(const std::string& text) {
    write_line(2, text);
}

}  // namespace orvi
