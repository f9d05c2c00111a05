// SPDX-License-Identifier: Apache-2.0
// The console face of the system upgrade, and its sub-command.
#pragma once

#include <string>

#include "qor/client.h"
#include "qor/sysupgrade_handler.h"

namespace qorc {

// Draws the percentage in place, a dot per second of reboot wait, and one
// line per status. Everything goes to standard output, flushed at once.
// No lock: every progression call is over before the first status after
// UPGRADING (the transfer ends first).
class SysupgradeLogHandler : public qor::client::SysupgradeHandler {
  public:
    ~SysupgradeLogHandler() override = default;
    void on_status_update(Status status) const override;
    void log(const std::string& text) const override;
    void progression(float percent) const override;
    void on_connect_retry(unsigned int count) const override;

  private:
    // -1 when no percentage or dots line is open, else the last figure shown.
    mutable int m_lastProgress = -1;
};

const char* sysupgrade_status_text(int status);

// The sysupgrade sub-command; returns the exit status. The reconnection
// after the reboot binds as the session did (session_bind, from --bind)
// unless reboot_url carries its own "bind" parameter.
int sysupgrade(qor::Client& client, const std::string& fw, bool keep_config, bool no_keep,
               int timeout, std::string reboot_url, const std::string& session_bind);

}  // namespace qorc
