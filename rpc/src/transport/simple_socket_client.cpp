// SPDX-License-Identifier: Apache-2.0
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <string>

#include "orvi/log_line.h"
#include "orvi/transport_simple_socket_client.h"
#include "transport/link_liveness.h"
#include "transport/simple_socket.h"
#include "transport/socket_reader.h"

namespace orvi {

namespace {

struct AddrInfoList {
    addrinfo* list = nullptr;
    ~AddrInfoList() {
        if (list) freeaddrinfo(list);
    }
};

long long elapsed_us(const timeval& start) {
    timeval now;
    gettimeofday(&now, nullptr);
    return (now.tv_sec - start.tv_sec) * 1000000LL + (now.tv_usec - start.tv_usec);
}

void set_nonblocking(int fd, bool on) {
    const int flags = fcntl(fd, F_GETFL, 0);
    fcntl(fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK));
}

// Several boards often answer on the same address behind different links;
// only the link itself then tells them apart.
bool names_interface(const std::string& bind) {
    return bind.size() < IFNAMSIZ && if_nametoindex(bind.c_str()) != 0;
}

// A dotted-quad IPv4 address and a plain decimal port: the common case,
// which needs neither the resolver nor its start-up cost. Anything else,
// even another numeric form, is left to getaddrinfo.
bool parse_ipv4_endpoint(const std::string& host, const std::string& port, sockaddr_in& out) {
    if (port.empty() || port.size() > 5) return false;
    unsigned long value = 0;
    for (char c : port) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    if (value > 65535) return false;
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<uint16_t>(value));
    return inet_pton(AF_INET, host.c_str(), &out.sin_addr) == 1;
}

void bind_local(int fd, const std::string& bind, const addrinfo& remote) {
    addrinfo hints{};
    hints.ai_family = remote.ai_family;
    hints.ai_socktype = remote.ai_socktype;
    hints.ai_protocol = remote.ai_protocol;
    AddrInfoList local;
    hints.ai_flags = AI_NUMERICHOST;
    if (getaddrinfo(bind.c_str(), nullptr, &hints, &local.list) != 0) {
        if (names_interface(bind)) {
            if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, bind.c_str(),
                           static_cast<socklen_t>(bind.size())) != 0) {
                throw SimpleSocketException("Failed to bind to " + bind);
            }
            return;
        }
        hints.ai_flags = 0;
        if (getaddrinfo(bind.c_str(), nullptr, &hints, &local.list) != 0) {
            throw SimpleSocketException("Failed to resolve hostname " + bind);
        }
    }
    for (addrinfo* a = local.list; a != nullptr; a = a->ai_next) {
        if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0) return;
    }
    throw SimpleSocketException("Failed to bind to " + bind);
}

}  // namespace

TransportSimpleSocketClient::TransportSimpleSocketClient(const std::string& host,
                                                         const std::string& port)
    : m_host(host), m_port(port) {}

TransportSimpleSocketClient::TransportSimpleSocketClient(const Url& url)
    : m_host(url.host), m_port(url.port) {
    auto it = url.params.find("bind");
    if (it != url.params.end()) m_bind = it->second;
}

TransportSimpleSocketClient::~TransportSimpleSocketClient() {
    stop_serve();
    m_handler.reset();
    take_socket();
}

std::shared_ptr<simple_socket::InfoClient> TransportSimpleSocketClient::socket() const {
    MutexLock lock(m_socketMutex);
    return m_socketPtr;
}

std::shared_ptr<simple_socket::InfoClient> TransportSimpleSocketClient::take_socket() {
    MutexLock lock(m_socketMutex);
    return std::move(m_socketPtr);
}

void TransportSimpleSocketClient::connect(int timeout) {
    assert(!socket());
    auto info = std::make_shared<simple_socket::InfoClient>(0, nullptr);

    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    AddrInfoList remote;
    sockaddr_in ipv4;
    addrinfo direct{};
    addrinfo* first = nullptr;
    if (parse_ipv4_endpoint(m_host, m_port, ipv4)) {
        direct.ai_family = AF_INET;
        direct.ai_socktype = SOCK_STREAM;
        direct.ai_protocol = IPPROTO_TCP;
        direct.ai_addr = reinterpret_cast<sockaddr*>(&ipv4);
        direct.ai_addrlen = sizeof ipv4;
        first = &direct;
    } else {
        // A numeric address needs no name service; asking for it that way
        // first gives the same answer without reading the resolver's
        // configuration.
        hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
        if (getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &remote.list) != 0) {
            hints.ai_flags = 0;
            if (getaddrinfo(m_host.c_str(), m_port.c_str(), &hints, &remote.list) != 0) {
                throw SimpleSocketException("Failed to resolve hostname " + m_host + ":" + m_port);
            }
        }
        first = remote.list;
    }

    timeval start;
    gettimeofday(&start, nullptr);
    const long long budget = static_cast<long long>(timeout) * 1000000LL;

    for (addrinfo* a = first; a != nullptr; a = a->ai_next) {
        info->m_fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (info->m_fd < 0) throw SimpleSocketException("Failed to create socket");
        set_nonblocking(info->m_fd, true);
        if (!m_bind.empty()) bind_local(info->m_fd, m_bind, *a);

        // Only a connection in progress is waited for; anything else, even an
        // immediate success, counts as a miss for this address.
        if (::connect(info->m_fd, a->ai_addr, a->ai_addrlen) != -1 || errno != EINPROGRESS) {
            close(info->m_fd);
            info->m_fd = -1;
            continue;
        }

        // Every address is charged for all the time spent since the start.
        const long long left = budget - elapsed_us(start);
        if (timeout > 0 && left <= 0) throw SimpleSocketException(simple_socket::kTimeoutText);
        pollfd pfd{info->m_fd, POLLOUT, 0};
        const int waitMs = timeout > 0 ? static_cast<int>((left + 999) / 1000) : -1;
        int r;
        do {
            r = poll(&pfd, 1, waitMs);
        } while (r < 0 && errno == EINTR);
        if (r == 0) throw SimpleSocketException(simple_socket::kTimeoutText);
        if (r < 0) {
            close(info->m_fd);
            info->m_fd = -1;
            continue;
        }

        int error = 0;
        socklen_t len = sizeof error;
        if (getsockopt(info->m_fd, SOL_SOCKET, SO_ERROR, &error, &len) != 0 || error != 0) {
            throw SimpleSocketException("Failed to connect to " + m_host + ":" + m_port);
        }
        set_nonblocking(info->m_fd, false);
        // One request and one answer at a time: never wait on Nagle.
        const int one = 1;
        setsockopt(info->m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        // Only now: set before the connection is made, the kernel's own
        // limit would race the budget above and end a silent attempt as
        // "Failed to connect" instead of "Timeout occured".
        simple_socket::watch_link_liveness(info->m_fd);

        // The answer is part of the attempt: a peer that accepts but never
        // answers is bounded by the same budget.
        const long long answerLeft = budget - elapsed_us(start);
        if (timeout > 0 && answerLeft <= 0)
            throw SimpleSocketException(simple_socket::kTimeoutText);
        simple_socket::client_handshake(
            info->m_fd, timeout > 0 ? static_cast<int>((answerLeft + 999) / 1000) : -1);
        info->open(
            std::unique_ptr<simple_socket::ProtocolV1>(new simple_socket::ProtocolV1(info->m_fd)));
        {
            simple_socket::CallerTurn turn(info->m_turn);
            info->m_reader->set_quick_ack(true);
        }
        {
            MutexLock lock(m_socketMutex);
            m_socketPtr = info;
        }

        if (auto handler = m_handler.lock()) start_serve(handler);
        return;
    }
    throw SimpleSocketException("Failed to connect to " + m_host + ":" + m_port);
}

void TransportSimpleSocketClient::start_serve(const std::shared_ptr<TransportHandler>& handler) {
    std::shared_ptr<simple_socket::InfoClient> info = socket();
    assert(info);
    m_handler = handler;
    info->m_id = handler->new_client(*this);
    info->m_handler = handler;
    info->m_turn.start();
    m_running = true;
    // Callers read with blocking reads of their own and need no wake event.
    if (!m_idleReader) return;
    if (!m_wake) m_wake.reset(new simple_socket::WakeEvent());
    m_wake->reset();
    {
        simple_socket::CallerTurn turn(info->m_turn);
        info->m_reader->set_wake_fd(m_wake->fd());
    }
    m_thread = std::thread(&TransportSimpleSocketClient::worker, this, std::move(info));
}

void TransportSimpleSocketClient::set_idle_reader(bool on) {
    assert(!m_thread.joinable());
    m_idleReader = on;
}

void TransportSimpleSocketClient::stop_serve() {
    m_running = false;
    if (std::shared_ptr<simple_socket::InfoClient> info = socket()) info->m_turn.stop();
    if (m_wake) m_wake->signal();
    if (m_thread.joinable()) m_thread.join();
    m_thread = std::thread();
}

void TransportSimpleSocketClient::disconnect() {
    stop_serve();
    take_socket();
}

void TransportSimpleSocketClient::send_message(const Message<BufferConst>& message) {
    std::shared_ptr<simple_socket::InfoClient> info = socket();
    if (!info) throw SimpleSocketException("TransportSocket not connected");
    info->send(message);
}

void TransportSimpleSocketClient::report_broken(
    const std::shared_ptr<simple_socket::InfoClient>& info, const char* line) {
    // Whoever finds the loss first reports it; the other sees m_running off.
    if (!m_running.exchange(false)) return;
    if (line) log_error(line);
    info->m_handler->delete_client(info->m_id);
}

bool TransportSimpleSocketClient::read_until(const std::function<bool()>& done) {
    std::shared_ptr<simple_socket::InfoClient> info = socket();
    if (!info || !m_running) return false;
    std::string failure;
    {
        simple_socket::CallerTurn turn(info->m_turn, [this] {
            if (m_wake) m_wake->signal();
        });
        if (!m_running) return false;
        info->m_reader->set_blocking(true);
        try {
            while (!done()) info->m_protocol->recv_message(info);
        } catch (const std::exception& e) {
            failure = std::string("Worker got exception: ") + e.what();
        } catch (...) {
            failure = "Worker got unknown exception";
        }
        info->m_reader->set_blocking(false);
    }
    if (!failure.empty()) report_broken(info, failure.c_str());
    return true;
}

void TransportSimpleSocketClient::worker(std::shared_ptr<simple_socket::InfoClient> info) {
    if (!m_running) return;
    try {
        pollfd fds[2] = {{info->m_fd, POLLIN | POLLPRI | POLLERR | POLLNVAL, 0},
                         {m_wake->fd(), POLLIN, 0}};
        while (info->m_turn.reader_begin()) {
            simple_socket::ReaderTurn turn(info->m_turn);
            if (!m_running) return;
            try {
                // Frames that a caller read but did not need are delivered
                // first: the poll below cannot see them.
                while (info->m_reader->buffered() != 0 && m_running) {
                    info->m_protocol->recv_message(info);
                }
                info->m_reader->before_blocking();
                const int r = poll(fds, 2, 1000);
                if (r > 0 && (fds[1].revents & POLLIN)) {
                    // stop_serve, or a caller that wants the socket.
                    if (!m_running) return;
                    m_wake->reset();
                    continue;
                }
                if (r > 0 && (fds[0].revents & POLLNVAL)) {
                    if (m_running) report_broken(info, nullptr);
                    return;
                }
                if (r > 0 && fds[0].revents != 0) {
                    // Frames that arrived in one read are delivered before
                    // the next poll, which cannot see them.
                    do {
                        info->m_protocol->recv_message(info);
                    } while (info->m_reader->buffered() != 0 && m_running);
                }
            } catch (const simple_socket::ReadInterrupted&) {
                // In the middle of a frame: the decoder keeps what it has,
                // and whoever reads next goes on from the same byte.
                if (!m_running) return;
                m_wake->reset();
            }
        }
        return;  // stopped
    } catch (const std::exception& e) {
        if (m_running)
            report_broken(info, (std::string("Worker got exception: ") + e.what()).c_str());
    } catch (...) {
        if (m_running) report_broken(info, "Worker got unknown exception");
    }
}

}  // namespace orvi
