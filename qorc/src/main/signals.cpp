// SPDX-License-Identifier: Apache-2.0
#include "signals.h"

#include <unistd.h>

#include <atomic>

#include "qor/sysupgrade.h"

namespace qorc {

namespace {

// Written by the console on the worker and the application thread, read in
// the handler: a lock-free atomic is safe in both places.
std::atomic<bool> g_lineOpen{false};
static_assert(std::atomic<bool>::is_always_lock_free, "read in a signal handler");

extern "C" void on_interrupt(int sig) {
    // Async-signal-safe calls only.
    if (g_lineOpen) {
        [[maybe_unused]] ssize_t r = write(STDOUT_FILENO, "\n", 1);
    }
    qor::client::remove_sysupgrade_marker_if_ours();
    // SA_RESETHAND has put the default action back: die of the same signal.
    raise(sig);
}

}  // namespace

void ignore_sigpipe() {
    signal(SIGPIPE, SIG_IGN);
}

void set_console_line_open(bool open) {
    g_lineOpen = open;
}

UpgradeSignalGuard::UpgradeSignalGuard() {
    struct sigaction action {};
    action.sa_handler = on_interrupt;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESETHAND | SA_NODEFER;
    for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &action, &m_previous[i]);
}

UpgradeSignalGuard::~UpgradeSignalGuard() {
    for (int i = 0; i < 3; ++i) sigaction(kSignals[i], &m_previous[i], nullptr);
}

}  // namespace qorc
