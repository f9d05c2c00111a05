// SPDX-License-Identifier: Apache-2.0
#include "board.h"

#include "handlers.h"
#include "orvi/log_line.h"

namespace qord_sim {

Board::Board(const Options& options, BoardState& state)
    : m_options(options),
      m_state(state),
      m_protocol(new orvi::Protocol(static_cast<size_t>(options.workers))) {
    m_bootDoneAt = std::chrono::steady_clock::now();
    if (!m_state.boot_done_at_start())
        m_bootDoneAt += std::chrono::milliseconds(options.boot_time_ms);
    register_commands();
}

Board::~Board() {
    stop();
    // The engine stops the transport and joins its workers.
    m_protocol.reset();
}

void Board::register_commands() {
    for (auto& entry : make_handler_factories(*this)) {
        if (m_options.refused.count(entry.first)) continue;
        m_protocol->add_command(entry.first, entry.second);
    }
}

std::shared_ptr<orvi::TransportSimpleSocketServer> Board::listen_on(const std::string& host,
                                                                    const std::string& port) {
    auto transport = std::make_shared<orvi::TransportSimpleSocketServer>(host, port);
    transport->set_nodelay(m_options.nodelay);
    transport->set_split_writes(m_options.split_frames);
    transport->set_handshake_answer(static_cast<unsigned char>(m_options.handshake_version));
    // Which link a client came from: on a host with several boards, the
    // proof that each reached its own.
    transport->set_peer_log(
        [](const std::string& peer) { orvi::write_line(1, "qord-sim connection from " + peer); });
    transport->listen();
    return transport;
}

void Board::announce(const std::string& what, const std::string& host, unsigned short port) {
    orvi::write_line(1, "qord-sim " + what + " " + host + ":" + std::to_string(port));
}

std::string Board::start() {
    auto transport = listen_on(m_options.listen_host, m_options.listen_port);
    {
        orvi::MutexLock lock(m_mutex);
        m_transport = transport;
        m_port = transport->local_port();
        m_up = true;
    }
    m_protocol->add_transport(transport);
    announce("listening on", m_options.listen_host, transport->local_port());
    return m_options.listen_host + ":" + std::to_string(transport->local_port());
}

void Board::run() {
    orvi::MutexLock lock(m_mutex);
    while (!m_stopping) {
        if (m_rebootRequested) {
            m_rebootRequested = false;
            reboot(lock);
            continue;
        }
        m_cond.wait(lock);
    }
}

void Board::stop() {
    orvi::MutexLock lock(m_mutex);
    m_stopping = true;
    m_cond.notify_all();
}

void Board::request_reboot() {
    orvi::MutexLock lock(m_mutex);
    m_rebootRequested = true;
    m_cond.notify_all();
}

bool Board::boot_done() {
    orvi::MutexLock lock(m_mutex);
    return m_up && std::chrono::steady_clock::now() >= m_bootDoneAt;
}

bool Board::wait_boot_done() {
    orvi::MutexLock lock(m_mutex);
    for (;;) {
        if (m_stopping) return false;
        const auto now = std::chrono::steady_clock::now();
        if (m_up && now >= m_bootDoneAt) return true;
        if (m_up) {
            m_cond.wait_until(lock, m_bootDoneAt);
        } else {
            m_cond.wait(lock);
        }
    }
}

void Board::drop_client(unsigned int client_id) {
    orvi::MutexLock lock(m_mutex);
    if (m_transport) m_transport->disconnect_client(client_id);
}

// Runs on the control thread with m_mutex held, which `lock` owns: waits
// go through it, and the mutex itself is let go while the board is down.
void Board::reboot(orvi::MutexLock& lock) {
    using std::chrono::milliseconds;
    // Let the answer that asked for the reboot reach the client first.
    if (m_cond.wait_for(lock, milliseconds(m_options.reboot_grace_ms),
                        [&]() REQUIRES(m_mutex) { return m_stopping; })) {
        return;
    }
    std::shared_ptr<orvi::TransportSimpleSocketServer> old = std::move(m_transport);
    m_up = false;
    m_mutex.unlock();
    orvi::write_line(1, "qord-sim rebooting");
    m_protocol->remove_transport(old);
    old.reset();
    m_mutex.lock();

    if (m_cond.wait_for(lock, milliseconds(m_options.reboot_delay_ms),
                        [&]() REQUIRES(m_mutex) { return m_stopping; })) {
        return;
    }
    if (m_options.never_return) {
        orvi::write_line(1, "qord-sim stays down");
        m_cond.wait(lock, [&]() REQUIRES(m_mutex) { return m_stopping; });
        return;
    }
    const std::string host =
        m_options.reboot_host.empty() ? m_options.listen_host : m_options.reboot_host;
    // Same port as before unless another one is named (a chosen free port included).
    const std::string port =
        m_options.reboot_port.empty() ? std::to_string(m_port) : m_options.reboot_port;
    m_mutex.unlock();
    std::shared_ptr<orvi::TransportSimpleSocketServer> back;
    try {
        back = listen_on(host, port);
        m_protocol->add_transport(back);
        announce("back on", host, back->local_port());
    } catch (const std::exception& e) {
        orvi::log_error("qord-sim: cannot come back on " + host + ":" + port + ": " + e.what());
    }
    m_mutex.lock();
    m_transport = back;
    m_up = back != nullptr;
    m_bootDoneAt = std::chrono::steady_clock::now() + milliseconds(m_options.boot_time_ms);
    m_cond.notify_all();
}

}  // namespace qord_sim
