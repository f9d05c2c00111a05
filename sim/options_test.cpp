// SPDX-License-Identifier: Apache-2.0
#include "options.h"
#include "testing/captured_output.h"

#include <gtest/gtest.h>

namespace qord_sim {
namespace {

int parse(std::vector<std::string> words, Options& o) {
    words.insert(words.begin(), "qord-sim");
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(&w[0]);
    // What it prints is not looked at here.
    orvi::testing::CapturedOutput err(orvi::testing::CapturedOutput::kStderr);
    orvi::testing::CapturedOutput out(orvi::testing::CapturedOutput::kStdout);
    return parse_options(static_cast<int>(argv.size()), argv.data(), o);
}

// What each option does is seen end to end, where the tests start the
// simulator with them; here, what it refuses.
TEST(SimOptions, RefusesBadUsage) {
    for (std::vector<std::string> bad : {std::vector<std::string>{"--listen"},
                                         {"--listen", "nohost"},
                                         {"--workers", "x"},
                                         {"--workers", "0"},
                                         {"--fail", "noequals"},
                                         {"--bogus"},
                                         {"stray"},
                                         {"--handshake-version", "256"}}) {
        Options o;
        EXPECT_EQ(parse(bad, o), 2) << bad[0];
    }
    Options o;
    EXPECT_EQ(parse({"--help"}, o), 0);
    EXPECT_EQ(parse({"--version", "--bogus"}, o), 0);
}

}  // namespace
}  // namespace qord_sim
