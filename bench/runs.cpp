// SPDX-License-Identifier: Apache-2.0
#include "runs.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "loopback.h"
#include "qor/client.h"
#include "qor/protobuf/catalogue.h"

namespace bench {

namespace {
constexpr size_t kChunk = qor::catalogue::kSysupgradeChunkSize;
const std::string kMarker = qor::catalogue::kSysupgradeMarkerFile;
}  // namespace

std::string make_image(const Work& w, const std::string& name, size_t size) {
    const std::string path = w.file(name);
    std::ofstream out(path, std::ios::binary);
    std::mt19937_64 rng(size);
    std::vector<uint64_t> block(1 << 16);
    for (size_t done = 0; done < size;) {
        for (auto& v : block) v = rng();
        const size_t n = std::min(size - done, block.size() * sizeof(uint64_t));
        out.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(n));
        done += n;
    }
    return path;
}

namespace {
std::vector<std::string> sim_arguments(std::vector<std::string> extra) {
    extra.insert(extra.begin(), {"--listen", "127.0.0.1:0"});
    return extra;
}
}  // namespace

Board::Board(BoardKind kind, std::vector<std::string> extra)
    : m_server(kind == BoardKind::kSim ? QORD_SIM_BIN : RAW_BOARD_BIN,
               kind == BoardKind::kSim ? sim_arguments(std::move(extra)) : extra) {}

UpgradeRun upgrade_once(const std::string& image, ClientKind client, BoardKind board,
                        const std::vector<std::string>& boardArgs) {
    Board b(board, boardArgs);
    support::Process c(client == ClientKind::kQorc ? QORC_BIN : RAW_CLIENT_BIN,
                       client == ClientKind::kQorc
                           ? std::vector<std::string>{"--url", b.url(), "sysupgrade", image}
                           : std::vector<std::string>{std::to_string(b.port()), "upgrade", image});
    const std::string line = support::wait_for_line(b.out_path(), "bytes in ", 600000);
    const long peak = c.peak_rss_kib();
    c.signal(SIGKILL);
    c.wait(-1);
    if (client == ClientKind::kQorc && support::read_file(kMarker) == std::to_string(c.pid())) {
        std::remove(kMarker.c_str());
    }
    if (line.empty()) throw std::runtime_error("upgrade did not finish");
    std::istringstream in(line.substr(line.find("received ") + 9));
    double bytes = 0, micros = 0;
    std::string word;
    in >> bytes >> word >> word >> micros;
    return {bytes / micros, peak};
}

double wall_ms(const std::string& binary, const std::vector<std::string>& args) {
    const auto start = Clock::now();
    support::Process c(binary, args);
    if (c.wait(-1) != 0) throw std::runtime_error(binary + " failed");
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

double client_round_trip_us(unsigned short port, int rounds) {
    qor::Client client;
    client.connect("127.0.0.1", std::to_string(port), "", 0);
    bool fff = false;
    client.fw_config_mode(fff);  // warm up
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) client.fw_config_mode(fff);
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / rounds;
}

double raw_client_round_trip_us(unsigned short port, int rounds) {
    Work w;
    support::Process c(RAW_CLIENT_BIN, {std::to_string(port), "round_trip", std::to_string(rounds)},
                       w.file("out"));
    if (c.wait(-1) != 0) throw std::runtime_error("raw_client round_trip failed");
    return std::stod(support::read_file(w.file("out")));
}

// Both ends of the floors: plain reads and writes, with TCP_NODELAY and
// without a time limit on reads.
struct PlainPair {
    support::RawListener listener;
    std::unique_ptr<support::RawConnection> accepted, connected;
    PlainPair() {
        std::thread accept([this] {
            accepted = std::make_unique<support::RawConnection>(listener.accept_one(), -1);
        });
        connected = std::make_unique<support::RawConnection>(
            support::RawConnection::connect_to(listener.port()), -1);
        accept.join();
        for (const auto* end : {accepted.get(), connected.get()}) {
            const int on = 1;
            setsockopt(end->fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        }
    }
};

double raw_lockstep_mbps(size_t total) {
    PlainPair p;
    std::thread server([&] {
        std::vector<char> chunk(kChunk);
        const char next[16] = {};
        for (size_t done = 0; done < total; done += kChunk) {
            p.accepted->write_from(next, sizeof next);
            p.accepted->read_into(chunk.data(), kChunk);
        }
    });
    std::vector<char> chunk(kChunk, 'x');
    char next[16];
    const auto start = Clock::now();
    for (size_t done = 0; done < total; done += kChunk) {
        p.connected->read_into(next, sizeof next);
        p.connected->write_from(chunk.data(), kChunk);
    }
    server.join();
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    return static_cast<double>(total) / micros;
}

double raw_ping_pong_us(int rounds) {
    PlainPair p;
    std::thread server([&] {
        char c;
        for (int i = 0; i < rounds; ++i) {
            p.accepted->read_into(&c, 1);
            p.accepted->write_from(&c, 1);
        }
    });
    char c = 'p';
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        p.connected->write_from(&c, 1);
        p.connected->read_into(&c, 1);
    }
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    server.join();
    return micros / rounds;
}

}  // namespace bench
