// SPDX-License-Identifier: Apache-2.0
#include "transport/socket_reader.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "orvi/exceptions.h"

namespace orvi {
namespace simple_socket {

WakeEvent::WakeEvent() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_fd < 0) throw SimpleSocketException("Failed to create wake event");
}

WakeEvent::~WakeEvent() {
    close(m_fd);
}

void WakeEvent::signal() {
    const uint64_t one = 1;
    // Only fails when the counter would overflow, which a set flag never is.
    [[maybe_unused]] ssize_t r = ::write(m_fd, &one, sizeof one);
}

void WakeEvent::reset() {
    uint64_t value;
    [[maybe_unused]] ssize_t r = ::read(m_fd, &value, sizeof value);
}

void SocketReader::before_blocking() {
    if (m_quickAck && m_ackOwed.exchange(false, std::memory_order_relaxed)) {
        const int one = 1;
        setsockopt(m_fd, IPPROTO_TCP, TCP_QUICKACK, &one, sizeof one);
    }
}

void SocketReader::wait_readable() {
    before_blocking();
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    const nfds_t n = m_wakeFd >= 0 ? 2 : 1;
    for (;;) {
        const int r = poll(fds, n, m_waitLimitMs);
        if (r < 0 && errno == EINTR) continue;
        if (r == 0) {
            throw SimpleSocketException("nothing received within " + std::to_string(m_waitLimitMs) +
                                        " ms");
        }
        if (n == 2 && (fds[1].revents & POLLIN)) throw ReadInterrupted{};
        return;  // readable, error or hang-up: the read that follows tells which
    }
}

size_t SocketReader::read_some(char* dst, size_t n) {
    for (;;) {
        if (m_blocking) before_blocking();
        // A closed peer leaves errno untouched; start from a known value.
        errno = 0;
        const ssize_t r = recv(m_fd, dst, n, m_blocking ? 0 : MSG_DONTWAIT);
        if (r > 0) {
            m_ackOwed.store(true, std::memory_order_relaxed);
            return static_cast<size_t>(r);
        }
        if (r < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            wait_readable();
            continue;
        }
        if (r < 0 && errno == EINTR) continue;
        throw SimpleSocketException(std::string("Failed to read data from server: ") +
                                    strerror(errno));
    }
}

void SocketReader::fill(char* dst, size_t n, size_t& filled) {
    const size_t take = std::min(n - filled, buffered());
    if (take != 0) {
        std::memcpy(dst + filled, m_buffer.get() + m_begin, take);
        m_begin += take;
        filled += take;
    }
    // Large blocks go straight to their destination. read_some throws before
    // it has taken anything, so `filled` is always exact.
    while (n - filled >= kBufferSize) filled += read_some(dst + filled, n - filled);
    if (filled == n) return;
    // The buffer is empty here. Bytes read into it survive an interruption
    // and are handed out by the next call.
    if (!m_buffer) m_buffer.reset(new char[kBufferSize]);
    m_begin = m_end = 0;
    const size_t want = n - filled;
    while (m_end < want) m_end += read_some(m_buffer.get() + m_end, kBufferSize - m_end);
    std::memcpy(dst + filled, m_buffer.get(), want);
    m_begin = want;
    filled = n;
}

bool SocketReader::at_end_of_stream() {
    if (buffered() != 0) return false;
    if (!m_buffer) m_buffer.reset(new char[kBufferSize]);
    for (;;) {
        errno = 0;
        const ssize_t r = recv(m_fd, m_buffer.get(), kBufferSize, MSG_DONTWAIT);
        if (r == 0) return true;
        if (r > 0) {
            m_ackOwed.store(true, std::memory_order_relaxed);
            m_begin = 0;
            m_end = static_cast<size_t>(r);
            return false;
        }
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            wait_readable();
            continue;
        }
        if (errno == EINTR) continue;
        throw SimpleSocketException(std::string("Failed to read data from server: ") +
                                    strerror(errno));
    }
}

}  // namespace simple_socket
}  // namespace orvi
