// SPDX-License-Identifier: Apache-2.0
// The client end of one TCP connection to a daemon.
// Public header: includes only other public headers.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "orvi/exceptions.h"
#include "orvi/mutex.h"
#include "orvi/transport.h"
#include "orvi/url.h"

namespace orvi {

namespace simple_socket {
class InfoClient;
class WakeEvent;
}  // namespace simple_socket

// Threading: connect, start_serve, stop_serve and disconnect are called by
// the owner's thread; send_message may be called from any thread, also while
// the owner disconnects (it then throws "TransportSocket not connected").
// Sends are whole-frame atomic (the connection record serialises them).
//
// Who reads: one thread at a time, whoever holds the connection's read turn
// (simple_socket::ReadTurn, checked by the compiler), and that thread also
// hands each frame to the engine, which routes it there (orvi/protocol.h).
//  - A caller in read_until, while it waits for its own answer: it blocks in
//    the read itself and delivers every frame that comes, in order, on its
//    own thread, until its answer is in. It takes the turn at once, bringing
//    the reader thread out of its wait if need be.
//  - Otherwise the reader thread that start_serve starts, once the socket has
//    had no caller for kIdleBeforeReader: it watches an idle connection, so
//    that a peer's loss or an unasked message is seen without a caller.
//    With set_idle_reader(false) there is no reader thread: whatever comes
//    between calls, frames or the loss, waits for the next caller.
// A frame that one of them has begun is finished by the next; a loss found
// by either is reported once. stop_serve stops the reader thread; it does not
// interrupt a caller blocked in read_until (the owner stops only between
// commands).
//
// connect(timeout) with a positive timeout bounds the whole attempt, the
// TCP connection and the handshake answer alike, by that many seconds.
// Once connected, the kernel watches the peer (keepalive after 10 s without
// traffic, and 30 s at most for anything sent to go unanswered): a peer that
// vanishes without closing, powered off or unplugged, ends the connection
// as a loss within about 30 s, whoever is reading or writing. A peer whose
// TCP stack still answers is waited for as long as it takes.
//
// States: idle (no socket) -> connected -> serving -> (stop_serve) connected,
// or broken when the reader fails; disconnect() returns to idle.
class TransportSimpleSocketClient : public TransportClient {
  public:
    TransportSimpleSocketClient(const std::string& host, const std::string& port);
    // Host and port from the URL; local bind address from its "bind" parameter.
    explicit TransportSimpleSocketClient(const Url& url);
    ~TransportSimpleSocketClient() override;

    void start_serve(const std::shared_ptr<TransportHandler>& handler) override;
    void stop_serve() override;
    void notify_fork(Fork) override {}
    void connect(int timeout) override;
    void disconnect() override;
    using TransportClient::send_message;
    void send_message(const Message<BufferConst>& message) override;
    bool read_until(const std::function<bool()>& done) override;

    // Whether a reader thread watches the connection between calls; on by
    // default. Off suits a program that runs its commands back to back and
    // exits: it starts no thread, and a loss between two calls is found by
    // the second. Called by the owner before start_serve.
    void set_idle_reader(bool on);

    static constexpr std::chrono::milliseconds kIdleBeforeReader{20};

    std::string m_host;
    std::string m_port;
    // Local address to bind to before connecting; empty for none. A value
    // that is not a numeric address but names a network interface binds the
    // socket to that interface instead. The owner may assign it between
    // construction and connect.
    std::string m_bind;

  private:
    void worker(std::shared_ptr<simple_socket::InfoClient> info);
    std::shared_ptr<simple_socket::InfoClient> socket() const;
    // Empties m_socketPtr and hands the record out, to be released with no
    // lock held: its destructor reports the lost client to the handler. A
    // send in progress on another thread keeps the record alive until it
    // returns.
    std::shared_ptr<simple_socket::InfoClient> take_socket();

    mutable Mutex m_socketMutex;
    // The pointer is guarded, not the record.
    std::shared_ptr<simple_socket::InfoClient> m_socketPtr GUARDED_BY(m_socketMutex);
    std::thread m_thread;
    // Written by the owner, read by the reader thread.
    std::atomic<bool> m_running{false};
    bool m_idleReader = true;  // the owner's
    std::weak_ptr<TransportHandler> m_handler;
    // Wakes the reader at once on stop_serve, or when a caller wants to read.
    std::unique_ptr<simple_socket::WakeEvent> m_wake;
    // The reader failed or the peer is gone: logs `line` (unless null) and
    // tells the handler, once.
    void report_broken(const std::shared_ptr<simple_socket::InfoClient>& info, const char* line);
};

}  // namespace orvi
