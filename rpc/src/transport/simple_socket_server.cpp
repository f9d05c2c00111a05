#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <iostream>

#include "orvi/frame_format.h"
#include "orvi/transport_simple_socket_server.h"
#include "transport/socket_reader.h"

namespace orvi {

TransportSimpleSocketServer::TransportSimpleSocketServer(const std::string& host,
                                                         const std::string& port)
    : m_host(host), m_port(port), m_wake(new simple_socket::WakeEvent()) {}

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
        std::lock_guard<std::mutex> lock(m_mutex);
        // Unblock a worker thread stuck sending to a client that stopped reading.
        for (auto& entry : m_clients) shutdown(entry.second->m_fd, SHUT_RDWR);
        readers.swap(m_readers);
    }
    for (Reader& r : readers) r.thread.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        clients.swap(m_clients);
    }
    // Dropping the records tells the handler and closes the sockets.
}

void TransportSimpleSocketServer::send_message(unsigned int client_id,
                                               const Message<BufferConst>& message) {
    std::shared_ptr<simple_socket::InfoClient> info;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        auto it = m_clients.find(client_id);
        if (it == m_clients.end()) return;
        info = it->second;
    }
    info->send(message);
}

void TransportSimpleSocketServer::disconnect_client(unsigned int client_id) {
    std::lock_guard<std::mutex> lock(m_mutex);
    auto it = m_clients.find(client_id);
    if (it != m_clients.end()) shutdown(it->second->m_fd, SHUT_RDWR);
}

void TransportSimpleSocketServer::reap_finished_readers() {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (auto it = m_readers.begin(); it != m_readers.end();) {
        if (it->finished) {
            it->thread.join();
            it = m_readers.erase(it);
        } else {
            ++it;
        }
    }
}

void TransportSimpleSocketServer::accept_loop() {
    pollfd fds[2] = {{m_listenFd, POLLIN, 0}, {m_wake->fd(), POLLIN, 0}};
    while (m_running) {
        const int r = poll(fds, 2, -1);
        if (r < 0) continue;
        if (fds[1].revents & POLLIN) return;
        if (!(fds[0].revents & POLLIN)) continue;
        const int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        reap_finished_readers();
        std::lock_guard<std::mutex> lock(m_mutex);
        m_readers.emplace_back();
        Reader* reader = &m_readers.back();
        reader->thread = std::thread(&TransportSimpleSocketServer::serve_client, this, fd, reader);
    }
}

bool TransportSimpleSocketServer::handshake(simple_socket::ProtocolV1& protocol, int fd) {
    unsigned char hello[2];
    protocol.read_exact(reinterpret_cast<char*>(hello), sizeof hello);
    const bool supported = hello[1] == simple_socket::kProtocolVersion;
    // An unsupported client is told the one version we speak, then dropped.
    const char answer =
        static_cast<char>(supported ? m_handshakeAnswer : simple_socket::kProtocolVersion);
    simple_socket::write(fd, &answer, 1);
    if (!supported) {
        std::cerr << "Dropping a client that speaks protocol version " << int(hello[1])
                  << std::endl;
    }
    return supported && m_handshakeAnswer == simple_socket::kProtocolVersion;
}

void TransportSimpleSocketServer::serve_client(int fd, Reader* self) {
    auto info = std::make_shared<simple_socket::InfoClient>(0, nullptr);
    info->m_fd = fd;
    auto* protocol = new simple_socket::ProtocolV1(fd);
    info->m_protocol.reset(protocol);
    protocol->set_wake_fd(m_wake->fd());
    protocol->set_split_writes(m_splitWrites);
    const int nodelay = m_nodelay ? 1 : 0;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nodelay, sizeof nodelay);

    unsigned int id = 0;
    try {
        if (handshake(*protocol, fd)) {
            auto handler = m_handler.lock();
            if (handler && m_running) {
                id = handler->new_client(*this);
                info->m_id = id;
                info->m_handler = handler;
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_clients[id] = info;
                }
                while (m_running && !protocol->at_end_of_stream()) protocol->recv_message(info);
            }
        }
    } catch (const simple_socket::ReadInterrupted&) {
        // stop_serve: the records are dropped there.
    } catch (const std::exception& e) {
        std::cerr << "Dropping client " << id << ": " << e.what() << std::endl;
    } catch (...) {
        std::cerr << "Dropping client " << id << ": unknown error" << std::endl;
    }
    if (m_running) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_clients.erase(id);
        }
        // Told here, on the reader thread, rather than by whichever sender
        // happens to drop the record last while holding its own locks.
        if (auto handler = std::move(info->m_handler)) handler->delete_client(id);
    }
    info.reset();
    self->finished = true;
}

}  // namespace orvi
