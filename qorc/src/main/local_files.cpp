// SPDX-License-Identifier: Apache-2.0
#include "local_files.h"

#include <errno.h>
#include <unistd.h>

#include <iostream>

namespace qorc {

namespace {

constexpr size_t kMaxLine = 64 * 1024;

// read(2) on standard input, past interruptions.
ssize_t read_some(char* buffer, size_t size) {
    for (;;) {
        const ssize_t n = read(STDIN_FILENO, buffer, size);
        if (n >= 0 || errno != EINTR) return n;
    }
}

}  // namespace

int file_failed(const char* what, const std::string& path) {
    std::cerr << "Failed " << what << " \"" << path << "\"" << std::endl;
    return 2;
}

bool read_stdin(std::string& out) {
    char chunk[64 * 1024];
    for (;;) {
        const ssize_t n = read_some(chunk, sizeof chunk);
        if (n < 0) return false;
        if (n == 0) return true;
        out.append(chunk, static_cast<size_t>(n));
    }
}

bool read_stdin_line(std::string& line) {
    line.clear();
    // A byte at a time: what follows the line stays for whoever reads next.
    for (;;) {
        char c;
        const ssize_t n = read_some(&c, 1);
        if (n < 0) return false;
        if (n == 0 || c == '\n') break;
        if (line.size() == kMaxLine) return false;
        line.push_back(c);
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return true;
}

}  // namespace qorc
