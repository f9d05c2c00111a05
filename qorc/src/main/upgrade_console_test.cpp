// SPDX-License-Identifier: Apache-2.0
#include "upgrade_console.h"

#include <gtest/gtest.h>

namespace qorc {
namespace {

// The drawing of a whole upgrade is checked end to end (sysupgrade_test);
// statuses that no upgrade reaches are named here.
TEST(UpgradeConsole, UnknownStatuses) {
    for (int status : {-1, 6}) {
        EXPECT_STREQ(sysupgrade_status_text(status), "!!! UNKNOWN UPGRADE STATUS !!!") << status;
    }
}

}  // namespace
}  // namespace qorc
