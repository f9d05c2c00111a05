// SPDX-License-Identifier: Apache-2.0
// A scripted board for end-to-end tests, on plain sockets and the
// hand-written codec (wire.h), so that qorc is checked against the wire.
// Its scripts misbehave the ways real boards do: answer and hang up, answer
// inside the DONE, ask for one chunk too many, come back deaf after a reboot.
#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "loopback.h"
#include "wire.h"

namespace e2e {

using wire::kData;
using wire::kDone;
using wire::kException;

// One accepted connection. Reads fail (std::runtime_error) when qorc hangs
// up or stays silent for 10 s, which ends the script for that connection.
class BoardConnection : public support::RawConnection {
  public:
    explicit BoardConnection(int fd) : RawConnection(fd, 10000) {}

    // Reads the two handshake bytes and answers with `version`.
    void handshake(char version = wire::kAccepted);
    // The next command message from qorc.
    wire::Message next();
    // Header (to the requester), command header, then the bodies, in one frame.
    void answer(const wire::Message& to, uint32_t status,
                const std::vector<std::string>& bodies = {}, const std::string& text = "");
    // Waits until qorc closes the connection.
    void wait_closed() { drain(); }
};

// Accepts connections on 127.0.0.1, or on the listening socket it is given,
// one after another and runs the script on each, given the connection's
// index from 0, on a thread of its own.
class HostileBoard {
  public:
    using Script = std::function<void(BoardConnection&, int index)>;
    explicit HostileBoard(Script script, int listening_fd = -1);
    ~HostileBoard();
    std::string address() const { return "127.0.0.1:" + m_listener.port_text(); }
    // Later connections are refused.
    void stop_listening() { m_listener.shutdown(); }

  private:
    void serve();

    Script m_script;
    support::RawListener m_listener;
    std::atomic<bool> m_running{true};
    std::thread m_thread;
};

// The board's side of an upgrade, over as many connections as it takes.
// Every connection answers the boot-end poll with done and the version with
// "v<N>" for its index N. On the connection that receives the image:
class UpgradeScript {
  public:
    std::string image;               // what arrived, chunk after chunk
    int chunk_delay_ms = 0;          // pause before each NEXT
    bool extra_next = false;         // one NEXT more after the last chunk
    size_t refuse_at = 0;            // set: refuse the image once this many bytes arrived
    bool deaf_after_reboot = false;  // later connections never answer the handshake
    bool gone_at_version = false;    // later connections hang up when asked it
    HostileBoard* board = nullptr;   // set: refuse connections after the reboot
    // Called with the bytes received so far, before and after each NEXT is
    // sent. They may pause, or throw std::runtime_error to end the script
    // there: a board that died.
    std::function<void(size_t)> before_next;
    std::function<void(size_t)> after_next;

    void operator()(BoardConnection& c, int index);
};

}  // namespace e2e
