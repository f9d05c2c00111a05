// SPDX-License-Identifier: Apache-2.0
// How qorc meets signals.
//  - SIGPIPE is ignored for the whole run: a closed standard output
//    (`qorc ... | head`) never kills an upgrade; the writes just fail.
//  - While an UpgradeSignalGuard lives, SIGINT, SIGTERM and SIGHUP end the
//    console's open line, remove the upgrade marker file if it is ours, and
//    then kill the process with the same signal, so that the shell reports
//    128 + its number.
#pragma once

#include <csignal>

namespace qorc {

void ignore_sigpipe();

// Whether the console has text on an unfinished line (a percentage, the
// dots, a log text without its newline). Kept by the console, read by the
// signal handler.
void set_console_line_open(bool open);

// Not copyable; installs the handlers for its lifetime and restores the
// previous dispositions when it goes. Application thread only.
class UpgradeSignalGuard {
  public:
    UpgradeSignalGuard();
    ~UpgradeSignalGuard();
    UpgradeSignalGuard(const UpgradeSignalGuard&) = delete;
    UpgradeSignalGuard& operator=(const UpgradeSignalGuard&) = delete;

  private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    struct sigaction m_previous[3];
};

}  // namespace qorc
