// SPDX-License-Identifier: Apache-2.0
// A minimal board, written by hand over raw sockets: the practical limit of
// the protocol on this machine, as a reference for qorc and for qord-sim.
// It answers version, fw_config_mode and echo with one frame (the answer
// riding on DONE), takes an upgrade image chunk by chunk with one NEXT per
// chunk, and answers any other command as unknown. Like a board, it does
// not set TCP_NODELAY.
//
// Usage: raw_board [--split-frames]
// Prints "raw_board listening on 127.0.0.1:PORT", and after each upgrade
// "raw_board upgrade: received N bytes in M us" (first chunk to last).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <thread>

#include "raw_wire.h"

namespace {

bool g_split = false;

class Connection {
  public:
    explicit Connection(int fd) : m_fd(fd), m_reader(fd) {}
    ~Connection() { close(m_fd); }

    void serve() {
        char hello[2];
        if (!m_reader.read_exact(hello, 2) || write(m_fd, &wire::kAccepted, 1) != 1) return;
        std::vector<std::string> parts;
        while (m_reader.next(parts)) {
            wire::Header h;
            if (parts.empty() || !wire::decode(parts[0], h)) return;
            const std::string body = parts.size() > 2 ? parts[2] : std::string();
            if (h.name) {
                if (!open(h, body)) return;
            } else if (m_upgrading && h.dest == m_upgradeId) {
                if (!chunk(body)) return;
            }
        }
    }

  private:
    bool reply(uint32_t dest, uint32_t source, uint32_t status, const std::string& body) {
        wire::Header h;
        h.source = source;
        h.dest = dest;
        const std::string header = wire::encode(h);
        const std::string state = wire::command_header(status);
        // An empty answer is no part at all, as a board ends an upgrade.
        if (body.empty())
            return raw::write_frame(m_fd, {raw::piece(header), raw::piece(state)}, g_split);
        return raw::write_frame(m_fd, {raw::piece(header), raw::piece(state), raw::piece(body)},
                                g_split);
    }

    bool open(const wire::Header& h, const std::string& body) {
        const uint32_t id = ++m_lastId;
        const uint32_t from = h.source.value_or(0);
        const std::string& name = *h.name;
        const bool ours = name.compare(0, wire::kPrefix.size(), wire::kPrefix) == 0;
        const std::string command = ours ? name.substr(wire::kPrefix.size()) : name;
        if (command == "version") {
            return reply(from, id, wire::kDone,
                         wire::bytes_field(1, "raw-board-1") + wire::bytes_field(2, "QOR"));
        }
        if (command == "fw_config_mode") {
            return reply(from, id, wire::kDone, wire::uint_field(1, 1));  // is_fff
        }
        if (command == "echo") return reply(from, id, wire::kDone, body);
        wire::Fields request;
        if (command == "sysupgrade") {
            if (!wire::parse(body, request) || request.number(2).value_or(0) == 0) return false;
            m_upgrading = true;
            m_upgradeId = id;
            m_client = from;
            m_size = *request.number(2);
            m_received = 0;
            return reply(m_client, id, wire::kData, m_next);
        }
        wire::Header refusal;
        refusal.type = wire::kNoHandler;
        refusal.dest = from;
        const std::string header = wire::encode(refusal);
        return raw::write_frame(m_fd, {raw::piece(header)}, g_split);
    }

    bool chunk(const std::string& data) {
        if (m_received == 0) m_first = std::chrono::steady_clock::now();
        m_received += data.size();
        if (m_received < m_size) return reply(m_client, m_upgradeId, wire::kData, m_next);
        const long long micros = std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - m_first)
                                     .count();
        std::printf("raw_board upgrade: received %llu bytes in %lld us\n",
                    static_cast<unsigned long long>(m_received), micros);
        std::fflush(stdout);
        m_upgrading = false;
        return reply(m_client, m_upgradeId, wire::kDone, std::string());
    }

    int m_fd;
    raw::FrameReader m_reader;
    uint32_t m_lastId = 0;
    bool m_upgrading = false;
    uint32_t m_upgradeId = 0, m_client = 0;
    uint64_t m_size = 0, m_received = 0;
    std::chrono::steady_clock::time_point m_first;
    const std::string m_next = std::string("\x08\x00", 2);  // Answer{type: NEXT}
};

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--split-frames") == 0) {
            g_split = true;
        } else {
            std::fprintf(stderr, "usage: raw_board [--split-frames]\n");
            return 2;
        }
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(listener, 64) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        std::perror("raw_board");
        return 1;
    }
    std::printf("raw_board listening on 127.0.0.1:%u\n", ntohs(addr.sin_port));
    std::fflush(stdout);
    for (;;) {
        const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::thread([fd] { Connection(fd).serve(); }).detach();
    }
}
