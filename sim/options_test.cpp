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

TEST(SimOptions, ParsesAddressesAndMisbehaviour) {
    Options o;
    EXPECT_EQ(parse({"--listen", "127.0.0.3:0", "--reboot-listen", "127.0.0.2", "--fail",
                     "psi.set=disk = full", "--refuse", "version", "--drop",
                     "com.korvane.command.echo", "--refuse-chunk", "3", "--never-return"},
                    o),
              -1);
    EXPECT_EQ(o.listen_host, "127.0.0.3");
    EXPECT_EQ(o.listen_port, "0");
    EXPECT_EQ(o.reboot_host, "127.0.0.2");
    EXPECT_EQ(o.reboot_port, "");
    EXPECT_EQ(o.failures.at("com.korvane.command.device.psi.set"), "disk = full");
    EXPECT_EQ(o.refused.count("com.korvane.command.version"), 1u);
    EXPECT_EQ(o.dropped.count("com.korvane.command.echo"), 1u);
    EXPECT_EQ(o.refuse_chunk, 3u);
    EXPECT_TRUE(o.never_return);
}

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
