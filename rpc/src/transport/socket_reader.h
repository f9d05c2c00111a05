// SPDX-License-Identifier: Apache-2.0
// Buffered, interruptible reads from a blocking stream socket.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>

#include "transport/framing.h"

namespace orvi {
namespace simple_socket {

// Thrown by SocketReader when its wake descriptor fires while it waits for
// bytes: the owner asked the reader thread to stop, or a caller wants the
// turn. Not a std::exception, so that no error path mistakes it for a
// socket failure.
struct ReadInterrupted {};

// An eventfd that a stopping owner signals to wake a reader blocked in poll.
class WakeEvent {
  public:
    WakeEvent();
    ~WakeEvent();
    WakeEvent(const WakeEvent&) = delete;
    WakeEvent& operator=(const WakeEvent&) = delete;

    int fd() const { return m_fd; }
    void signal();
    void reset();

  private:
    int m_fd;
};

// Reads through a 64 KiB buffer, so that a burst of small frames costs one
// system call; large buffers are read straight into their destination.
// Used by whoever holds the connection's read turn (InfoClient::m_turn),
// the only thread that may touch it.
class SocketReader : public ByteSource {
  public:
    // `ack_owed` is set when bytes come in and cleared by each send (from any
    // thread: the segment carried the ACK).
    SocketReader(int fd, std::atomic<bool>& ack_owed) : m_fd(fd), m_ackOwed(ack_owed) {}

    // While waiting for bytes, also watch this descriptor; -1 for none.
    void set_wake_fd(int fd) { m_wakeFd = fd; }
    // Acknowledge at once, before blocking, bytes that no send of ours has
    // acknowledged yet, so that a peer that writes a frame in pieces without
    // TCP_NODELAY is not held up by our delayed ACK.
    void set_quick_ack(bool on) { m_quickAck = on; }
    // Called by the reader before it blocks (wait_readable does it itself).
    void before_blocking();
    // Block in the receive itself instead of polling first (for a caller that
    // waits for its answer; it cannot be woken by the wake descriptor).
    void set_blocking(bool on) { m_blocking = on; }
    // Longest wait for the next bytes, after which a read throws
    // SimpleSocketException; -1 (the default) waits for as long as it takes.
    void set_wait_limit_ms(int ms) { m_waitLimitMs = ms; }

    void fill(char* dst, size_t n, size_t& filled) override;
    // Bytes already read from the socket and not yet consumed.
    size_t buffered() const { return m_end - m_begin; }
    // True when the peer has closed and nothing is left to read. Blocks until
    // there is at least one byte or the end of the stream.
    bool at_end_of_stream();

  private:
    static constexpr size_t kBufferSize = 64 * 1024;
    // One successful read of at most n bytes into dst (> 0 bytes).
    size_t read_some(char* dst, size_t n);
    void wait_readable();

    int m_fd;
    int m_wakeFd = -1;
    bool m_quickAck = false;
    bool m_blocking = false;
    std::atomic<bool>& m_ackOwed;  // bytes read since our last send
    int m_waitLimitMs = -1;
    std::unique_ptr<char[]> m_buffer;
    size_t m_begin = 0;
    size_t m_end = 0;
};

}  // namespace simple_socket
}  // namespace orvi
