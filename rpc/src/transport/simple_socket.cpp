// SPDX-License-Identifier: Apache-2.0
#include "transport/simple_socket.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "transport/frame_format.h"
#include "transport/framing.h"
#include "transport/socket_reader.h"

namespace orvi {
namespace simple_socket {

namespace {

[[noreturn]] void throw_send_failed() {
    throw SimpleSocketException("Failed to send data to server");
}

// Sends the whole scatter list, resuming after partial writes. The caller's
// list is used as it is; only a partial write makes a copy of the rest.
void write_pieces(int fd, const iovec* pieces, size_t count) {
    std::vector<iovec> rest;
    while (count != 0) {
        msghdr msg{};
        msg.msg_iov = const_cast<iovec*>(pieces);
        msg.msg_iovlen = count;
        const ssize_t r = sendmsg(fd, &msg, MSG_NOSIGNAL);
        if (r < 0) {
            if (errno == EINTR) continue;
            throw_send_failed();
        }
        size_t done = static_cast<size_t>(r);
        size_t first = 0;
        while (first < count && done >= pieces[first].iov_len) {
            done -= pieces[first].iov_len;
            ++first;
        }
        if (first == count) return;
        if (pieces == rest.data()) {
            rest.erase(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(first));
        } else {
            rest.assign(pieces + first, pieces + count);
        }
        rest[0].iov_base = static_cast<char*>(rest[0].iov_base) + done;
        rest[0].iov_len -= done;
        pieces = rest.data();
        count = rest.size();
    }
}

}  // namespace

void write(int fd, const char* data, unsigned int size) {
    if (size == 0) return;
    const iovec piece{const_cast<char*>(data), size};
    write_pieces(fd, &piece, 1);
}

void read(int fd, char* data, int size) {
    if (size <= 0) return;
    int done = 0;
    while (done < size) {
        errno = 0;
        const ssize_t r = ::read(fd, data + done, size - done);
        if (r <= 0) {
            if (r < 0 && errno == EINTR) continue;
            throw SimpleSocketException(std::string("Failed to read data from server: ") +
                                        strerror(errno));
        }
        done += static_cast<int>(r);
    }
}

void client_handshake(int fd, int answer_timeout_ms) {
    // One write: the same two bytes on the wire, without waiting on Nagle.
    const char hello[2] = {static_cast<char>(kHandshakeLead), static_cast<char>(kProtocolVersion)};
    write(fd, hello, sizeof hello);
    if (answer_timeout_ms >= 0) {
        pollfd pfd{fd, POLLIN, 0};
        int r;
        do {
            r = poll(&pfd, 1, answer_timeout_ms);
        } while (r < 0 && errno == EINTR);
        if (r == 0) throw SimpleSocketException(kTimeoutText);
    }
    char answer = 0;
    read(fd, &answer, 1);
    if (static_cast<unsigned char>(answer) != kProtocolVersion) {
        throw SimpleSocketException("Failed to connect, socket protocol mismatch");
    }
}

void ProtocolV1::send_message(const Message<BufferConst>& message) {
    FrameEncoder frame(message);
    if (!m_splitWrites) {
        // One system call, no staging copy: the frame leaves as one segment.
        write_pieces(m_fd, frame.pieces().data(), frame.pieces().size());
    } else {
        for (const iovec& piece : frame.pieces()) write_pieces(m_fd, &piece, 1);
    }
}

void ProtocolV1::recv_message(const std::shared_ptr<InfoClient>& info) {
    Message<BufferMutable> message;
    if (!info->m_decoder.read(*info->m_reader, message)) return;
    info->m_handler->new_message(info->m_id, message);
}

InfoClient::InfoClient(unsigned int id, const std::shared_ptr<TransportHandler>& handler)
    : m_id(id), m_handler(handler) {}

InfoClient::~InfoClient() {
    if (m_handler) m_handler->delete_client(m_id);
    close(m_fd);
    m_protocol.reset();
    m_handler.reset();
}

void InfoClient::open(std::unique_ptr<ProtocolV1> protocol) {
    m_protocol = std::move(protocol);
    m_reader.reset(new SocketReader(m_fd, m_ackOwed));
}

void InfoClient::send(const Message<BufferConst>& message) {
    MutexLock lock(m_sendMutex);
    m_protocol->send_message(message);
    m_ackOwed.store(false, std::memory_order_relaxed);
}

}  // namespace simple_socket
}  // namespace orvi
