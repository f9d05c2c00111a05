// Test helpers: a peer on 127.0.0.1 driven byte by byte with plain sockets,
// so that the framework is checked against the wire, not against itself.
#pragma once

#include <string>

namespace orvi {
namespace testing {

// A listening socket on 127.0.0.1 with a free port.
class RawListener {
  public:
    RawListener();
    ~RawListener();
    unsigned short port() const { return m_port; }
    std::string port_text() const { return std::to_string(m_port); }
    // Waits up to 5 s for one connection; returns its descriptor or -1.
    int accept_one(std::string* peerAddress = nullptr);

  private:
    int m_fd;
    unsigned short m_port;
};

// One connected socket with exact reads and writes that fail the test
// (through exceptions) instead of hanging: every read has a 5 s limit.
class RawConnection {
  public:
    explicit RawConnection(int fd) : m_fd(fd) {}
    ~RawConnection();
    RawConnection(const RawConnection&) = delete;
    RawConnection& operator=(const RawConnection&) = delete;

    // Connects to 127.0.0.1:port.
    static int connect_to(unsigned short port);

    int fd() const { return m_fd; }
    void write(const std::string& bytes);
    // Exactly n bytes; throws std::runtime_error on time-out or close.
    std::string read(size_t n);
    // True when the peer closes within the time limit with nothing more sent.
    bool wait_closed(int timeoutMs = 5000);
    void close();

  private:
    int m_fd;
};

// Bytes from a readable hex text such as "03 00 00 00 01 41"; blanks ignored.
std::string hex(const std::string& text);
// The reverse, for failure messages.
std::string to_hex(const std::string& bytes);

}  // namespace testing
}  // namespace orvi
