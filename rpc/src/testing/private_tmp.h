// SPDX-License-Identifier: Apache-2.0
// Test binaries that run upgrades link a main() that puts them in a mount
// namespace of their own, with a fresh tmpfs on /tmp, so that the marker
// file /tmp/qor_sysupgrade is theirs alone: other tests and other upgrades on
// the same host never see it. Processes they start inherit that /tmp.
#pragma once

namespace orvi {
namespace testing {

// True when this process runs with a private /tmp. Needs root; without it
// the tests that depend on it skip themselves with a message.
bool has_private_tmp();

}  // namespace testing
}  // namespace orvi

// Skips the current test when /tmp is shared with the rest of the host.
#define REQUIRE_PRIVATE_TMP()                                                     \
    do {                                                                          \
        if (!::orvi::testing::has_private_tmp())                                  \
            GTEST_SKIP() << "needs a private /tmp (root, for a mount namespace)"; \
    } while (0)
