// SPDX-License-Identifier: Apache-2.0
// Files named on the command line: the messages for their failures, and
// standard input standing in for a path (or a passcode) given as "-".
#pragma once

#include <string>

namespace qorc {

// The operand that names standard input (for psi_get: standard output).
constexpr const char* kStdioPath = "-";
inline bool is_stdio(const std::string& path) {
    return path == kStdioPath;
}

// Writes "Failed <what> \"<path>\"" to standard error; returns 2, the status
// of a local file fault. `what` is "to open", "to read" or "to write".
int file_failed(const char* what, const std::string& path);

// Appends everything left on standard input to `out`. False on a read error
// (as opposed to the end of the input).
bool read_stdin(std::string& out);

// The first line of standard input, without its line end ("\n" or "\r\n");
// nothing behind it is consumed. False on a read error, or when no line end
// comes within 64 KiB: that is no passcode, and an endless input such as
// /dev/zero must not grow without bound.
bool read_stdin_line(std::string& line);

}  // namespace qorc
