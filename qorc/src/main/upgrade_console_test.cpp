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

TEST(UpgradeConsole, EachWholePercentageIsDrawnOnce) {
    EXPECT_EQ(drawn([](auto& h) {
                  h.progression(12.2f);
                  h.progression(12.9f);
                  h.progression(13.0f);
                  h.progression(99.99f);
              }),
              "\r12 % \r13 % \r99 % ");
}

TEST(UpgradeConsole, StatusLinesCloseWhatIsOpen) {
    // A full run: percentage, board log, reboot with dots, success.
    EXPECT_EQ(drawn([](auto& h) {
                  h.on_status_update(Status::UPGRADING);
                  h.progression(50.0f);
                  h.log("board says");
                  h.progression(100.0f);
                  h.on_status_update(Status::REBOOTING);
                  h.on_connect_retry(1);
                  h.on_connect_retry(2);
                  h.on_status_update(Status::REBOOT_DONE);
                  h.log("Upgraded to 2.0\n");
                  h.on_status_update(Status::UPGRADE_DONE);
              }),
              "Upgrading...\n\r50 % board says\r100 % \nRebooting....."
              "\nReboot done\nUpgraded to 2.0\nUpgrade done with success\n");
    // No dot: "Reboot done" follows "Rebooting..." on the same line.
    EXPECT_EQ(drawn([](auto& h) {
                  h.on_status_update(Status::REBOOTING);
                  h.on_status_update(Status::REBOOT_DONE);
              }),
              "Rebooting...Reboot done\n");
}

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
