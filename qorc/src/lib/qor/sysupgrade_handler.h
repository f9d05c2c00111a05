// SPDX-License-Identifier: Apache-2.0
// What the system upgrade reports, and to whom.
#pragma once

#include <string>

namespace qor {
namespace client {

// progression and log are called on an engine worker while the image is
// sent; on_status_update and on_connect_retry on the caller's thread. The
// transfer is over before the first status after UPGRADING is reported.
class SysupgradeHandler {
  public:
    enum Status {
        UPGRADING = 0,
        UPGRADE_FAILED = 1,
        UPGRADE_DONE = 2,
        REBOOTING = 3,
        REBOOT_FAILED = 4,
        REBOOT_DONE = 5,
    };

    virtual ~SysupgradeHandler() = default;
    virtual void on_status_update(Status status) const = 0;
    // One text for the user; the texts bring their own newlines.
    virtual void log(const std::string& text) const = 0;
    // Share of the image sent so far, 0 to 100.
    virtual void progression(float percent) const = 0;
    // Once per second of waiting for the board; counts the seconds so far.
    virtual void on_connect_retry(unsigned int seconds) const = 0;
};

}  // namespace client
}  // namespace qor
