// SPDX-License-Identifier: Apache-2.0
// The passcode file of reset_imei: records of a device MAC ('-' or ':'
// between its bytes) and the rest of the line, trimmed, as the passcode.
#pragma once

#include <istream>
#include <string>

namespace qorc {

enum class PasscodeLookup { kFound, kNotFound, kReadError };

// Reads records until one matches `mac` (case-insensitively). A failed read
// keeps the previous passcode: after a final newline, one more pass sees an
// empty key with the last record's passcode. A read error (as opposed to the
// end of the file) ends the search at once.
PasscodeLookup find_passcode(std::istream& file, const std::string& mac, std::string& passcode);

}  // namespace qorc
