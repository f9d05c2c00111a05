// SPDX-License-Identifier: Apache-2.0
// A peer on 127.0.0.1 driven byte by byte with plain sockets, so that the
// framework is checked against the wire, not against itself; also the plain
// TCP floors of the benchmarks.
#pragma once

#include <string>

namespace support {

// A listening socket on 127.0.0.1 with a free port.
class RawListener {
  public:
    // With an fd, takes over that socket, which already listens wherever it
    // was made.
    explicit RawListener(int fd = -1);
    ~RawListener();
    unsigned short port() const { return m_port; }
    std::string port_text() const { return std::to_string(m_port); }
    // Waits up to timeout_ms for one connection; returns its descriptor or -1.
    int accept_one(std::string* peerAddress = nullptr, int timeout_ms = 5000);
    // Later connections are refused at once.
    void shutdown();

  private:
    int m_fd;
    unsigned short m_port;
};

// One connected socket with exact reads and writes that fail the test
// (through exceptions) instead of hanging: every read waits at most
// limit_ms, or without a limit when it is below 0 (for a benchmark, which
// must not pay for the check).
class RawConnection {
  public:
    explicit RawConnection(int fd, int limit_ms = 5000) : m_fd(fd), m_limitMs(limit_ms) {}
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // Connects to 127.0.0.1:port.
    static int connect_to(unsigned short port);

    int fd() const { return m_fd; }
    void write(const std::string& bytes);
    // Exactly n bytes; throws std::runtime_error on time-out or close.
    std::string read(size_t n);
    void read_into(char* data, size_t n);
    void write_from(const char* data, size_t n);
    // True when the peer closes within the time limit with nothing more sent.
    bool wait_closed(int timeoutMs = 5000);
    // Reads and drops whatever comes until the peer closes.
    void drain();
    void close();

  private:
    int m_fd;
    int m_limitMs;
};

// Bytes from a readable hex text such as "03 00 00 00 01 41"; blanks ignored.
std::string hex(const std::string& text);
// The reverse, for failure messages.
std::string to_hex(const std::string& bytes);

}  // namespace support
