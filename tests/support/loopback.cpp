// SPDX-License-Identifier: Apache-2.0
#include "loopback.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <stdexcept>

namespace support {

namespace {
sockaddr_in loopback(unsigned short port) {
    return sockaddr_in{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
}
}  // namespace

RawListener::RawListener(int fd) : m_fd(fd) {
    sockaddr_in addr = loopback(0);
    if (m_fd < 0) {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(m_fd, 16) != 0) {
            throw std::runtime_error("cannot listen on 127.0.0.1");
        }
    }
    socklen_t len = sizeof addr;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
    m_port = ntohs(addr.sin_port);
}

RawListener::~RawListener() {
    ::close(m_fd);
}

void RawListener::shutdown() {
    ::shutdown(m_fd, SHUT_RDWR);
}

int RawListener::accept_one(std::string* peerAddress, int timeout_ms) {
    pollfd pfd{m_fd, POLLIN, 0};
    if (poll(&pfd, 1, timeout_ms) != 1) return -1;
    if (!(pfd.revents & POLLIN)) {  // shut down: waits out the limit, so that no loop spins
        poll(nullptr, 0, timeout_ms);
        return -1;
    }
    sockaddr_in peer{};
    socklen_t len = sizeof peer;
    const int fd = accept4(m_fd, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (fd >= 0 && peerAddress) {
        char text[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &peer.sin_addr, text, sizeof text);
        *peerAddress = text;
    }
    return fd;
}

RawConnection::~RawConnection() {
    close();
}

int RawConnection::connect_to(unsigned short port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in addr = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        throw std::runtime_error("cannot connect to 127.0.0.1:" + std::to_string(port));
    }
    return fd;
}

void RawConnection::write(const std::string& bytes) {
    write_from(bytes.data(), bytes.size());
}

void RawConnection::write_from(const char* data, size_t n) {
    size_t done = 0;
    while (done < n) {
        const ssize_t r = send(m_fd, data + done, n - done, MSG_NOSIGNAL);
        if (r <= 0) throw std::runtime_error("raw write failed");
        done += static_cast<size_t>(r);
    }
}

std::string RawConnection::read(size_t n) {
    std::string out(n, '\0');
    read_into(&out[0], n);
    return out;
}

void RawConnection::read_into(char* data, size_t n) {
    size_t done = 0;
    while (done < n) {
        pollfd pfd{m_fd, POLLIN, 0};
        if (m_limitMs >= 0 && poll(&pfd, 1, m_limitMs) != 1) {
            throw std::runtime_error("raw read timed out after " + std::to_string(done) + " of " +
                                     std::to_string(n) + " bytes");
        }
        const ssize_t r = ::read(m_fd, data + done, n - done);
        if (r <= 0) throw std::runtime_error("raw read: peer closed");
        done += static_cast<size_t>(r);
    }
}

bool RawConnection::wait_closed(int timeoutMs) {
    pollfd pfd{m_fd, POLLIN, 0};
    if (poll(&pfd, 1, timeoutMs) != 1) return false;
    char c;
    return ::read(m_fd, &c, 1) <= 0;
}

void RawConnection::drain() {
    char c;
    while (::read(m_fd, &c, 1) > 0) {
    }
}

void RawConnection::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

std::string hex(const std::string& text) {
    std::string digits, out;
    for (char c : text) {
        if (!std::isspace(static_cast<unsigned char>(c))) digits += c;
    }
    for (size_t at = 0; at + 1 < digits.size(); at += 2) {
        out += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
    }
    return out;
}

std::string to_hex(const std::string& bytes) {
    std::string out;
    char b[4];
    for (unsigned char c : bytes) {
        std::snprintf(b, sizeof b, "%02x ", c);
        out += b;
    }
    return out;
}

}  // namespace support
