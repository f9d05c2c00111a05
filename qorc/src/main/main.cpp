// SPDX-License-Identifier: Apache-2.0
// qorc: runs one sub-command against the board's daemon and exits.
#include <iostream>

#include "arguments.h"
#include "device_commands.h"
#include "qor/client.h"
#include "signals.h"
#include "upgrade_console.h"

namespace {

// Seconds for the first connection, TCP and the handshake answer together:
// a board that is off or unplugged, or whose daemon never answers, is
// reported rather than waited for (the kernel alone gives up on unanswered
// SYNs only after more than two minutes).
constexpr int kConnectTimeout = 30;

int dispatch(qor::Client& client, const qorc::Arguments& a, const std::string& url) {
    if (a.fallback_ffh) return qorc::fallback_ffh(client);
    if (a.fw_config_mode) return qorc::fw_config_mode(client);
    if (a.sysupgrade) {
        const int timeout = a.timeout == -1 ? qorc::kDefaultRebootTimeout : a.timeout;
        return qorc::sysupgrade(client, a.fw, a.keep_config, a.no_keep, timeout,
                                a.reboot_url.empty() ? url : a.reboot_url, a.bind);
    }
    if (a.psi_get) return qorc::psi_get(client, a.path);
    if (a.psi_set) return qorc::psi_set(client, a.path);
    if (a.reset_imei) return qorc::reset_imei(client, a.path);
    if (a.activate) return qorc::activate_talvex(client, a.passcode);
    if (a.fw_version) return qorc::fw_version(client);
    return 0;  // discover: connecting was the whole job
}

}  // namespace

int main(int argc, char** argv) {
    qorc::ignore_sigpipe();
    qorc::Arguments args;
    const int status = qorc::parse_arguments(argc, argv, args);
    if (status >= 0) return status;

    std::string host, port;
    qorc::split_address(args.url, host, port);
    std::cout << "Try to connect to " << host << ":" << port << std::endl;
    // Only the default reboot address of sysupgrade uses this form.
    const std::string url = "tcp://" + host + ":" + port;

    qor::Client client;
    // One command, then exit: there is no idle spell worth a reader thread.
    client.set_idle_watch(false);
    try {
        client.connect(host, port, args.bind, kConnectTimeout);
        return dispatch(client, args, url);
    } catch (const std::exception& e) {
        std::cerr << "Error: " << e.what() << std::endl;
        return 1;
    }
}
