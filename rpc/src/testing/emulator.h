// SPDX-License-Identifier: Apache-2.0
// The command that runs this build's programs: empty for a native build; for
// a cross build whose tests run under an emulator, its words, to be put in
// front of the program (QORC_EMULATOR, space-separated, set by CMake).
#pragma once

#include <sstream>
#include <string>
#include <vector>

namespace orvi {
namespace testing {

inline std::vector<std::string> emulator_command() {
    std::vector<std::string> words;
#ifdef QORC_EMULATOR
    std::istringstream in(QORC_EMULATOR);
    for (std::string word; in >> word;) words.push_back(word);
#endif
    return words;
}

}  // namespace testing
}  // namespace orvi
