// SPDX-License-Identifier: Apache-2.0
// The simulated board: one engine serving every qord command on a TCP
// address, and the reboot that follows an upgrade or a firmware-source
// switch.
//
// Threads: handlers run on the engine's workers and only request a reboot;
// run() performs reboots on the calling (control) thread until stop().
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "board_state.h"
#include "options.h"
#include "orvi/mutex.h"
#include "orvi/protocol.h"
#include "orvi/transport_simple_socket_server.h"

namespace qord_sim {

class Board {
  public:
    Board(const Options& options, BoardState& state);
    ~Board();

    // Listens and serves; returns the address as "host:port". Throws
    // orvi::SimpleSocketException when the address cannot be used.
    std::string start();
    // Performs requested reboots until stop() is called.
    void run();
    // Safe from any thread, including a signal-waiting one.
    void stop();

    // For handlers.
    const Options& options() const { return m_options; }
    BoardState& state() { return m_state; }
    void request_reboot();
    bool boot_done();
    // Blocks until the boot is over; false when the board is stopping.
    bool wait_boot_done();
    void drop_client(unsigned int client_id);

  private:
    void register_commands();
    // Called and returns with m_mutex held through `lock`, which it lets go
    // while the board is down.
    void reboot(orvi::MutexLock& lock) REQUIRES(m_mutex);
    std::shared_ptr<orvi::TransportSimpleSocketServer> listen_on(const std::string& host,
                                                                 const std::string& port);
    void announce(const std::string& what, const std::string& host, unsigned short port);

    const Options& m_options;
    BoardState& m_state;
    std::unique_ptr<orvi::Protocol> m_protocol;

    orvi::Mutex m_mutex;
    orvi::CondVar m_cond;
    std::shared_ptr<orvi::TransportSimpleSocketServer> m_transport GUARDED_BY(m_mutex);
    unsigned short m_port GUARDED_BY(m_mutex) = 0;  // where the board first listened
    bool m_stopping GUARDED_BY(m_mutex) = false;
    bool m_rebootRequested GUARDED_BY(m_mutex) = false;
    bool m_up GUARDED_BY(m_mutex) = false;  // false while rebooting
    std::chrono::steady_clock::time_point m_bootDoneAt GUARDED_BY(m_mutex);
};

}  // namespace qord_sim
