// SPDX-License-Identifier: Apache-2.0
// What a call throws, as a value to compare, so that a test states the
// expected failure in one line.
#pragma once

#include <exception>
#include <string>

namespace support {

// The text of the E that `call` throws; "(no error)" when it returns.
template <class E = std::exception, class Call>
std::string error_of(Call&& call) {
    try {
        call();
    } catch (const E& e) {
        return e.what();
    }
    return "(no error)";
}

}  // namespace support
