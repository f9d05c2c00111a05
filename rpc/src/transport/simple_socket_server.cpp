// SPDX-License-Identifier: Apache-2.0
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <string>
#include <system_error>

#include "orvi/log_line.h"
#include "orvi/transport_simple_socket_server.h"
#include "transport/frame_format.h"
#include "transport/simple_socket.h"
#include "transport/socket_reader.h"

namespace orvi {

TransportSimpleSocketServer::TransportSimpleSocketServer(const std::string& host,
                                                         const std::string& port)
    : m_host(host),
      m_port(port),
      m_wake(new simple_socket::WakeEvent()),
      m_readerDone(new simple_socket::WakeEvent()) {}

TransportSimpleSocketServer::~TransportSimpleSocketServer() {
    stop_serve();
    if (m_listenFd >= 0) close(m_listenFd);
}

void TransportSimpleSocketServer::listen() {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo* list = nullptr;
    if (getaddrinfo(m_host.empty() ? nullptr : m_host.c_str(), m_port.c_str(), &hints, &list) !=
        0) {
        throw SimpleSocketException("Failed to resolve hostname " + m_host + ":" + m_port);
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> guard(list, freeaddrinfo);
    for (addrinfo* a = list; a != nullptr; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) continue;
        const int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(fd, a->ai_addr, a->ai_addrlen) == 0 && ::listen(fd, 64) == 0) {
            sockaddr_storage local{};
            socklen_t len = sizeof local;
            getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len);
            m_localPort = ntohs(local.ss_family == AF_INET6
                                    ? reinterpret_cast<sockaddr_in6*>(&local)->sin6_port
                                    : reinterpret_cast<sockaddr_in*>(&local)->sin_port);
            m_listenFd = fd;
            return;
        }
        close(fd);
    }
    throw SimpleSocketException("Failed to listen on " + m_host + ":" + m_port);
}

void TransportSimpleSocketServer::start_serve(const std::shared_ptr<TransportHandler>& handler) {
    if (m_listenFd < 0) listen();
    m_handler = handler;
    m_running = true;
    m_acceptThread = std::thread(&TransportSimpleSocketServer::accept_loop, this);
}

void TransportSimpleSocketServer::stop_serve() {
    m_running = false;
    m_wake->signal();
    if (m_acceptThread.joinable()) m_acceptThread.join();
    if (m_listenFd >= 0) {
        close(m_listenFd);
        m_listenFd = -1;
    }

    std::map<unsigned int, std::shared_ptr<simple_socket::InfoClient>> clients;
    std::list<Reader> readers;
    {
        MutexLock lock(m_mutex);
        // Unblock a worker thread stuck sending to a client that stopped reading.
        for (auto& entry : m_clients) shutdown(entry.second->m_fd, SHUT_RDWR);
        readers.swap(m_readers);
    }
    for (Reader& r : readers) r.thread.join();
    {
        MutexLock lock(m_mutex);
        clients.swap(m_clients);
    }
    // Dropping the records tells the handler and closes the sockets.
}

void TransportSimpleSocketServer::send_message(unsigned int client_id,
                                               const Message<BufferConst>& message) {
    std::shared_ptr<simple_socket::InfoClient> info;
    {
        MutexLock lock(m_mutex);
        auto it = m_clients.find(client_id);
        if (it == m_clients.end()) return;
        info = it->second;
    }
    info->send(message);
}

void TransportSimpleSocketServer::disconnect_client(unsigned int client_id) {
    MutexLock lock(m_mutex);
    auto it = m_clients.find(client_id);
    if (it != m_clients.end()) shutdown(it->second->m_fd, SHUT_RDWR);
}

void TransportSimpleSocketServer::reap_finished_readers() {
    std::list<Reader> finished;
    {
        MutexLock lock(m_mutex);
        for (auto it = m_readers.begin(); it != m_readers.end();) {
            auto next = std::next(it);
            if (it->finished) finished.splice(finished.end(), m_readers, it);
            it = next;
        }
    }
    // Joined with no lock held; each has finished or is about to return.
    for (Reader& r : finished) r.thread.join();
}

namespace {
std::string address_text(const sockaddr_storage& address, socklen_t length) {
    char host[NI_MAXHOST], port[NI_MAXSERV];
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
        return "?";
    }
    return address.ss_family == AF_INET6 ? "[" + std::string(host) + "]:" + port
                                         : std::string(host) + ":" + port;
}
}  // namespace

void TransportSimpleSocketServer::accept_loop() {
    pollfd fds[3] = {
        {m_listenFd, POLLIN, 0}, {m_wake->fd(), POLLIN, 0}, {m_readerDone->fd(), POLLIN, 0}};
    while (m_running) {
        if (poll(fds, 3, -1) < 0) continue;
        if (fds[1].revents & POLLIN) return;
        if (fds[2].revents & POLLIN) {
            m_readerDone->reset();
            reap_finished_readers();
        }
        if (!(fds[0].revents & POLLIN)) continue;
        sockaddr_storage peer{};
        socklen_t peerLength = sizeof peer;
        const int fd =
            accept4(m_listenFd, reinterpret_cast<sockaddr*>(&peer), &peerLength, SOCK_CLOEXEC);
        if (fd < 0) {
            accept_failed(errno);
            continue;
        }
        m_acceptFailureLogged = false;
        if (m_peerLog) m_peerLog(address_text(peer, peerLength));
        admit(fd);
    }
}

void TransportSimpleSocketServer::accept_failed(int error) {
    // The connection may have gone before we took it; nothing to wait for.
    if (error == EINTR || error == EAGAIN || error == ECONNABORTED || error == EPROTO) return;
    if (!m_acceptFailureLogged) {
        m_acceptFailureLogged = true;
        log_error(std::string("Cannot accept connections: ") + strerror(error) +
                  "; retrying every " + std::to_string(kAcceptBackoffMs) + " ms");
    }
    // The waiting connection stays queued, so the listener stays readable:
    // wait for a stop, for a client to leave (freeing a descriptor), or for
    // the pause to pass.
    pollfd fds[2] = {{m_wake->fd(), POLLIN, 0}, {m_readerDone->fd(), POLLIN, 0}};
    poll(fds, 2, kAcceptBackoffMs);
}

void TransportSimpleSocketServer::admit(int fd) {
    MutexLock lock(m_mutex);
    if (m_readers.size() >= m_maxClients) {
        close(fd);
        if (!m_capLogged) {
            m_capLogged = true;
            log_error("Refusing new connections: " + std::to_string(m_maxClients) +
                      " connections are open, the most allowed");
        }
        return;
    }
    m_capLogged = false;
    m_readers.emplace_back();
    Reader* reader = &m_readers.back();
    try {
        reader->thread = std::thread(&TransportSimpleSocketServer::serve_client, this, fd, reader);
    } catch (const std::system_error& e) {
        m_readers.pop_back();
        close(fd);
        log_error(std::string("Refusing a connection: cannot start its thread: ") + e.what());
    }
}

namespace {
// The server side of the handshake: true when the client may go on.
bool handshake(simple_socket::InfoClient& info, unsigned char our_answer) REQUIRES(info.m_turn) {
    unsigned char hello[2];
    info.m_reader->read_exact(reinterpret_cast<char*>(hello), sizeof hello);
    const bool supported = hello[1] == simple_socket::kProtocolVersion;
    // An unsupported client is told the one version we speak, then dropped.
    const char answer = static_cast<char>(supported ? our_answer : simple_socket::kProtocolVersion);
    simple_socket::write(info.m_fd, &answer, 1);
    if (!supported) {
        log_error("Dropping a client that speaks protocol version " + std::to_string(hello[1]));
    }
    return supported && our_answer == simple_socket::kProtocolVersion;
}
}  // namespace

void TransportSimpleSocketServer::serve_client(int fd, Reader* self) {
    auto info = std::make_shared<simple_socket::InfoClient>(0, nullptr);
    info->m_fd = fd;
    auto* protocol = new simple_socket::ProtocolV1(fd);
    protocol->set_split_writes(m_splitWrites);
    info->open(std::unique_ptr<simple_socket::ProtocolV1>(protocol));
    const int nodelay = m_nodelay ? 1 : 0;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);

    unsigned int id = 0;
    {
        // This thread is the connection's only reader: it holds the turn
        // for as long as the connection lasts.
        simple_socket::CallerTurn turn(info->m_turn);
        info->m_reader->set_wake_fd(m_wake->fd());
        try {
            info->m_reader->set_wait_limit_ms(m_handshakeTimeoutMs);
            const bool greeted = handshake(*info, m_handshakeAnswer);
            info->m_reader->set_wait_limit_ms(-1);
            if (greeted) {
                auto handler = m_handler.lock();
                if (handler && m_running) {
                    id = handler->new_client(*this);
                    info->m_id = id;
                    info->m_handler = handler;
                    {
                        MutexLock lock(m_mutex);
                        m_clients[id] = info;
                    }
                    while (m_running && !info->m_reader->at_end_of_stream()) {
                        info->m_protocol->recv_message(info);
                    }
                }
            }
        } catch (const simple_socket::ReadInterrupted&) {
            // stop_serve: the records are dropped there.
        } catch (const std::exception& e) {
            log_error(id == 0
                          ? std::string("Dropping a connection before its handshake: ") + e.what()
                          : "Dropping client " + std::to_string(id) + ": " + e.what());
        } catch (...) {
            log_error("Dropping client " + std::to_string(id) + ": unknown error");
        }
    }
    if (m_running) {
        {
            MutexLock lock(m_mutex);
            m_clients.erase(id);
        }
        // Told here, on the reader thread, rather than by whichever sender
        // happens to drop the record last while holding its own locks.
        if (auto handler = std::move(info->m_handler)) handler->delete_client(id);
    }
    info.reset();
    self->finished = true;
    m_readerDone->signal();
}

}  // namespace orvi
