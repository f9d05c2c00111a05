// SPDX-License-Identifier: Apache-2.0
// The board's end of the simple-socket transport: listens, accepts any
// number of clients, runs the server side of the handshake and one reader
// thread per client.
// Public header: includes only other public headers.
#pragma once

#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "orvi/exceptions.h"
#include "orvi/mutex.h"
#include "orvi/transport.h"

namespace orvi {

namespace simple_socket {
class InfoClient;
class ProtocolV1;
class WakeEvent;
}  // namespace simple_socket

// Threading: listen, start_serve and stop_serve belong to the owner's thread.
// One accept thread, plus one reader thread per client, report to the
// handler. send_message may be called from any thread; frames to one client
// never interleave.
//
// Bad input from a client (wrong handshake, broken frame, a client that
// vanishes mid-frame) drops that client with one line on standard error; the
// others go on. Limits keep a daemon alive under load: a connection that does
// not finish its handshake in time is dropped, connections beyond the cap are
// closed at once, and a failing accept (out of descriptors) backs off instead
// of spinning. A reader thread is joined as soon as its client is gone.
class TransportSimpleSocketServer : public Transport {
  public:
    TransportSimpleSocketServer(const std::string& host, const std::string& port);
    ~TransportSimpleSocketServer() override;

    // Binds and listens. Port "0" takes a free port; read it back with
    // local_port(). Throws SimpleSocketException.
    void listen();
    unsigned short local_port() const { return m_localPort; }

    // Test hook: the version byte answered to a client that speaks version 1.
    // Anything but 1 makes such clients fail their handshake.
    void set_handshake_answer(unsigned char version) { m_handshakeAnswer = version; }
    // Off by default, as on a board.
    void set_nodelay(bool on) { m_nodelay = on; }
    // Each piece of a frame in a write of its own; the bytes on the wire are
    // the same.
    void set_split_writes(bool on) { m_splitWrites = on; }
    // How long a new connection may take to send its two handshake bytes.
    void set_handshake_timeout_ms(int ms) { m_handshakeTimeoutMs = ms; }
    // Connections open at once, handshakes under way included; more are
    // closed as soon as they are accepted.
    void set_max_clients(size_t n) { m_maxClients = n; }
    // Told the peer address ("host:port") of every accepted connection, on
    // the accept thread.
    void set_peer_log(std::function<void(const std::string& peer)> log) {
        m_peerLog = std::move(log);
    }
    static constexpr int kDefaultHandshakeTimeoutMs = 5000;
    static constexpr size_t kDefaultMaxClients = 256;
    // Pause after an accept that failed for want of resources.
    static constexpr int kAcceptBackoffMs = 100;

    void start_serve(const std::shared_ptr<TransportHandler>& handler) override;
    // Closes the listener and every client, joins every thread; returns
    // without waiting out any poll interval.
    void stop_serve() override;
    bool is_server() const override { return true; }
    // A client that is gone is skipped silently.
    void send_message(unsigned int client_id, const Message<BufferConst>& message) override;
    // Breaks one client's connection; its reader then reports it gone.
    void disconnect_client(unsigned int client_id);

  private:
    struct Reader {
        std::thread thread;
        std::atomic<bool> finished{false};
    };

    void accept_loop();
    // Starts a reader for a new connection, or closes it when at the cap.
    void admit(int fd);
    // After a failed accept: logs the first failure of a run, and backs off
    // when retrying at once would only fail again.
    void accept_failed(int error);
    void serve_client(int fd, Reader* self);
    void reap_finished_readers();

    std::string m_host;
    std::string m_port;
    unsigned short m_localPort = 0;
    int m_listenFd = -1;
    // Settings: set before start_serve, read-only afterwards.
    unsigned char m_handshakeAnswer = 1;
    bool m_nodelay = false;
    bool m_splitWrites = false;
    int m_handshakeTimeoutMs = kDefaultHandshakeTimeoutMs;
    size_t m_maxClients = kDefaultMaxClients;
    std::function<void(const std::string&)> m_peerLog;
    std::weak_ptr<TransportHandler> m_handler;
    std::unique_ptr<simple_socket::WakeEvent> m_wake;
    // Signalled by a reader thread as it ends, so that the accept thread
    // joins it without waiting for the next connection.
    std::unique_ptr<simple_socket::WakeEvent> m_readerDone;
    // Accept thread only: whether the current run of failures or refusals
    // has been logged already.
    bool m_acceptFailureLogged = false;
    bool m_capLogged = false;
    std::atomic<bool> m_running{false};
    std::thread m_acceptThread;

    Mutex m_mutex;
    std::map<unsigned int, std::shared_ptr<simple_socket::InfoClient>> m_clients
        GUARDED_BY(m_mutex);
    std::list<Reader> m_readers GUARDED_BY(m_mutex);
};

}  // namespace orvi
