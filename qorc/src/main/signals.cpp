#include "signals.h"

#include <unistd.h>

#include "qor/sysupgrade.h"

namespace qorc {

namespace {

volatile sig_atomic_t g_lineOpen = 0;

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
    g_lineOpen = open ? 1 : 0;
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
