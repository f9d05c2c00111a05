// SPDX-License-Identifier: Apache-2.0
#include "upgrade_console.h"
#include "testing/captured_output.h"

#include <gtest/gtest.h>

namespace qorc {
namespace {

using Status = qor::client::SysupgradeHandler::Status;

std::string drawn(const std::function<void(const SysupgradeLogHandler&)>& steps) {
    SysupgradeLogHandler handler;
    orvi::testing::CapturedOutput out(orvi::testing::CapturedOutput::kStdout);
    steps(handler);
    return out.text();
}

// The drawing of a whole upgrade is checked end to end (sysupgrade_test);
// statuses that no upgrade reaches are checked here.
TEST(UpgradeConsole, StatusTexts) {
    EXPECT_EQ(drawn([](auto& h) {
                  h.on_status_update(Status::UPGRADE_FAILED);
                  h.on_status_update(Status::REBOOT_FAILED);
                  h.on_status_update(static_cast<Status>(6));
                  h.on_status_update(static_cast<Status>(-1));
              }),
              "Upgrade failed\nReboot failed\n!!! UNKNOWN UPGRADE STATUS !!!\n"
              "!!! UNKNOWN UPGRADE STATUS !!!\n");
}

}  // namespace
}  // namespace qorc
