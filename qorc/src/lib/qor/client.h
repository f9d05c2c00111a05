// The session: one engine and the one TCP transport to the board's daemon.
// Used from one thread; not copyable.
#pragma once

#include <memory>
#include <string>

#include "orvi/protocol.h"
#include "orvi/transport.h"
#include "qor/device/device.h"
#include "qor/sysupgrade_handler.h"

namespace qor {

class Client {
  public:
    // Starts the engine with its one worker thread.
    Client();
    // Drops our transport reference, then the engine, which stops every
    // transport still attached and joins its threads.
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    // `timeout` in seconds, below 1 for no limit of our own. On failure the
    // session is unchanged and the transport's exception passes out.
    void connect(const std::string& host, const std::string& port, const std::string& bind,
                 int timeout);
    void disconnect();
    // Whether the connection is watched between commands (the default), so
    // that the board's hang-up is noticed when it happens. A program that
    // runs one command and exits turns it off before connect: it then starts
    // no reader thread, and a hang-up is found by the next command.
    void set_idle_watch(bool on) { m_idleWatch = on; }

    void echo(const std::string& payload, std::string& reply);
    void fallback_ffh();
    void fw_config_mode(bool& is_fff);
    // The firmware the board runs, and the magic that tells one build from
    // another.
    void version(std::string& version, std::string& magic);
    // May be an empty handle when the board does not know the id.
    client::Device get_device(unsigned int id);
    void sysupgrade(const std::string& fw, bool keep_config, bool no_keep, int timeout,
                    const std::string& reboot_url, const client::SysupgradeHandler& handler);

  private:
    orvi::Protocol* m_protocol;  // owned: created here, deleted by the destructor
    std::shared_ptr<orvi::Transport> m_transport;
    bool m_idleWatch = true;
};

}  // namespace qor
