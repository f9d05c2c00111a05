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
        const char accepted = 1;
        if (!m_reader.read_exact(hello, 2) || write(m_fd, &accepted, 1) != 1) return;
        std::vector<std::string> parts;
        while (m_reader.next(parts)) {
            raw::Header h;
            if (parts.empty() || !raw::decode_header(parts[0], h)) return;
            const std::string body = parts.size() > 2 ? parts[2] : std::string();
            if (!h.name.empty()) {
                if (!open(h, body)) return;
            } else if (m_upgrading && h.dest == m_upgradeId) {
                if (!chunk(body)) return;
            }
        }
    }

  private:
    bool reply(uint32_t dest, uint32_t source, uint32_t status, const std::string& body) {
        raw::Header h;
        h.source = source;
        h.dest = dest;
        const std::string header = raw::encode_header(h);
        const std::string state = raw::encode_status(status);
        // An empty answer is no part at all, as a board ends an upgrade.
        if (body.empty())
            return raw::write_frame(m_fd, {raw::piece(header), raw::piece(state)}, g_split);
        return raw::write_frame(m_fd, {raw::piece(header), raw::piece(state), raw::piece(body)},
                                g_split);
    }

    bool open(const raw::Header& h, const std::string& body) {
        const uint32_t id = ++m_lastId;
        const std::string name = h.name.compare(0, raw::kPrefix.size(), raw::kPrefix) == 0
                                     ? h.name.substr(raw::kPrefix.size())
                                     : h.name;
        if (name == "version") {
            std::string answer;
            raw::put_bytes_field(answer, 1, "raw-board-1");
            raw::put_bytes_field(answer, 2, "QOR");
            return reply(h.source, id, raw::kDone, answer);
        }
        if (name == "fw_config_mode") {
            std::string answer;
            raw::put_varint_field(answer, 1, 1);  // is_fff
            return reply(h.source, id, raw::kDone, answer);
        }
        if (name == "echo") return reply(h.source, id, raw::kDone, body);
        if (name == "sysupgrade") {
            uint64_t size = 0;
            if (!raw::find_varint(body, 2, size) || size == 0) return false;
            m_upgrading = true;
            m_upgradeId = id;
            m_client = h.source;
            m_size = size;
            m_received = 0;
            return reply(m_client, id, raw::kData, m_next);
        }
        raw::Header refusal;
        refusal.type = raw::kNoHandler;
        refusal.dest = h.source;
        const std::string header = raw::encode_header(refusal);
        return raw::write_frame(m_fd, {raw::piece(header)}, g_split);
    }

    bool chunk(const std::string& data) {
        if (m_received == 0) m_first = std::chrono::steady_clock::now();
        m_received += data.size();
        if (m_received < m_size) return reply(m_client, m_upgradeId, raw::kData, m_next);
        const long long micros = std::chrono::duration_cast<std::chrono::microseconds>(
                                     std::chrono::steady_clock::now() - m_first)
                                     .count();
        std::printf("raw_board upgrade: received %llu bytes in %lld us\n",
                    static_cast<unsigned long long>(m_received), micros);
        std::fflush(stdout);
        m_upgrading = false;
        return reply(m_client, m_upgradeId, raw::kDone, std::string());
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
