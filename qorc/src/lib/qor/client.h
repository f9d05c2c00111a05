// SPDX-License-Identifier: Apache-2.0
// qor::Client: a session with one board's daemon, qord.
//
// Every operation runs one remote command and returns when the board has
// answered it. Failures are thrown, each type deriving from std::exception
// with the reason in what():
//   orvi::SimpleSocketException   connect: the board cannot be reached
//   orvi::ProxyCommandException   the command failed on the board, or the
//                                 connection was lost
//   orvi::ProxyCommandNoHandler   the board does not know the command
//   orvi::ProtocolException       no connection
//   qor::client::DeviceException  a Device operation on a device that is
//                                 not usable
// A session is used from one thread at a time and is not copyable. The
// threads it starts end when it is destroyed.
#pragma once

#include <memory>
#include <string>

#include "orvi/exceptions.h"
#include "qor/device/device.h"
#include "qor/sysupgrade_handler.h"

namespace orvi {
class Transport;
}

namespace qor {

class Client {
  public:
    Client();
    // Ends the connection, if any, and every thread of the session.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // Connects to host:port, from the local address or network interface
    // `bind` when it is not empty. `timeout` in seconds, below 1 for no limit
    // of our own. On failure the session is unchanged.
    void connect(const std::string& host, const std::string& port, const std::string& bind,
                 int timeout);
    // Serves a transport that is already connected to the board (one of the
    // framework's own, e.g. an in-process one in tests) instead.
    void connect(std::shared_ptr<orvi::Transport> transport);
    void disconnect();
    // Whether the connection is watched between commands (the default), so
    // that the board's hang-up is noticed when it happens. A program that
    // runs one command and exits turns it off before connect: it then starts
    // no reader thread, and a hang-up is found by the next command.
    void set_idle_watch(bool on);

    // The board sends the payload back.
    void echo(const std::string& payload, std::string& reply);
    // Switches the board to firmware from the host; the board then reboots.
    void fallback_ffh();
    // Whether the board takes its firmware from flash (true) or the host.
    void fw_config_mode(bool& is_fff);
    // The firmware the board runs, and the magic that tells one build from
    // another.
    void version(std::string& version, std::string& magic);
    // An empty handle (valid() false) when the board does not know the id.
    client::Device get_device(unsigned int id);
    // Sends the image `fw`, follows the board through its reboot for up to
    // `timeout` seconds, reconnecting at `reboot_url` ("tcp://host:port",
    // optionally "?bind=..."), and checks that the firmware changed.
    // `keep_config` keeps all of /etc, `no_keep` none of the files the board
    // lists. Reports to `handler` as it goes; holds /tmp/qor_sysupgrade.
    void sysupgrade(const std::string& fw, bool keep_config, bool no_keep, int timeout,
                    const std::string& reboot_url, const client::SysupgradeHandler& handler);

  private:
    struct Engine;  // the RPC engine and the transport, in client.cpp
    std::unique_ptr<Engine> m_engine;
};

}  // namespace qor
