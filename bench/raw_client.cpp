// SPDX-License-Identifier: Apache-2.0
// A minimal client, written by hand over raw sockets: what a one-shot run
// and an upgrade cost at the protocol's own limit. TCP_NODELAY on, as qorc.
//
// Usage: raw_client PORT fw_config_mode      one command, then exit
//        raw_client PORT round_trip N        N commands; prints the mean in us
//        raw_client PORT upgrade FILE        streams FILE in 4096-byte chunks
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "raw_wire.h"

namespace {

constexpr size_t kChunk = 4096;

class Session {
  public:
    explicit Session(int fd) : m_fd(fd), m_reader(fd) {}

    bool open(const char* name, const std::string& body, uint32_t status = wire::kData) {
        wire::Header h;
        h.source = ++m_lastId;
        h.name = wire::kPrefix + name;
        return send(h, status, body.data(), body.size());
    }
    bool send_to(uint32_t dest, const char* data, size_t size) {
        wire::Header h;
        h.source = m_lastId;
        h.dest = dest;
        return send(h, wire::kData, data, size);
    }
    // The next message: the board's proxy id, its status and its body.
    bool receive(uint32_t& from, uint32_t& status, std::string& body) {
        wire::Header h;
        wire::Fields state;
        if (!m_reader.next(m_parts) || m_parts.size() < 2 || !wire::decode(m_parts[0], h) ||
            h.type != wire::kCommand || !wire::parse(m_parts[1], state) || !state.number(1)) {
            return false;
        }
        status = static_cast<uint32_t>(*state.number(1));
        from = h.source.value_or(0);
        body = m_parts.size() > 2 ? m_parts[2] : std::string();
        return true;
    }
    // One whole command whose answer rides on DONE.
    bool call(const char* name, std::string& answer) {
        uint32_t from = 0, status = 0;
        return open(name, std::string()) && receive(from, status, answer) && status == wire::kDone;
    }

  private:
    bool send(const wire::Header& h, uint32_t status, const char* data, size_t size) {
        const std::string header = wire::encode(h);
        const std::string state = wire::command_header(status);
        return raw::write_frame(
            m_fd, {raw::piece(header), raw::piece(state), iovec{const_cast<char*>(data), size}});
    }

    int m_fd;
    raw::FrameReader m_reader;
    std::vector<std::string> m_parts;
    uint32_t m_lastId = 0;
};

int connect_board(unsigned short port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) return -1;
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    char accepted = 0;
    if (write(fd, wire::kHello.data(), 2) != 2 || read(fd, &accepted, 1) != 1 ||
        accepted != wire::kAccepted) {
        return -1;
    }
    return fd;
}

int upgrade(Session& s, const char* path) {
    const int file = open(path, O_RDONLY | O_CLOEXEC);
    if (file < 0) return 1;
    const off_t size = lseek(file, 0, SEEK_END);
    lseek(file, 0, SEEK_SET);
    // keep_config, fw_size
    const std::string request = wire::uint_field(1, 0) + wire::uint_field(2, uint64_t(size));
    if (!s.open("sysupgrade", request)) return 1;
    // The image is read 64 KiB at a time and sent 4096 bytes per NEXT.
    std::string block(64 << 10, '\0');
    size_t at = 0, have = 0;
    uint32_t board = 0, status = 0;
    std::string answer;
    while (s.receive(board, status, answer)) {
        if (status == wire::kDone) return 0;
        if (answer != std::string("\x08\x00", 2)) continue;  // not a NEXT
        if (at == have) {
            const ssize_t n = read(file, &block[0], block.size());
            if (n <= 0) return 1;
            at = 0;
            have = static_cast<size_t>(n);
        }
        const size_t n = std::min(kChunk, have - at);
        if (!s.send_to(board, block.data() + at, n)) return 1;
        at += n;
    }
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: raw_client PORT fw_config_mode|round_trip N|upgrade FILE\n");
        return 2;
    }
    const int fd = connect_board(static_cast<unsigned short>(std::atoi(argv[1])));
    if (fd < 0) return 1;
    Session s(fd);
    const std::string mode = argv[2];
    std::string answer;
    if (mode == "fw_config_mode") {
        if (!s.call("fw_config_mode", answer)) return 1;
        std::puts(answer == std::string("\x08\x01", 2) ? "FW configuration mode: FFF"
                                                       : "FW configuration mode: FFH");
        return 0;
    }
    if (mode == "round_trip" && argc == 4) {
        const int rounds = std::atoi(argv[3]);
        if (!s.call("fw_config_mode", answer)) return 1;  // warm up
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < rounds; ++i) {
            if (!s.call("fw_config_mode", answer)) return 1;
        }
        const double micros =
            std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                .count();
        std::printf("%.2f\n", micros / rounds);
        return 0;
    }
    if (mode == "upgrade" && argc == 4) return upgrade(s, argv[3]);
    std::fprintf(stderr, "raw_client: unknown mode %s\n", argv[2]);
    return 2;
}
