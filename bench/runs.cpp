#include "runs.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "qor/client.h"

namespace bench {

namespace {
constexpr size_t kChunk = 4096;
const std::string kMarker = "/tmp/qor_sysupgrade";
}  // namespace

Work::Work() {
    char tmpl[] = "/tmp/qorc-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    dir = tmpl;
}

Work::~Work() {
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}

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

Board::Board(BoardKind kind, const Work& w, const std::string& name,
             std::vector<std::string> extra) {
    if (kind == BoardKind::kSim) {
        extra.insert(extra.begin(), {"--listen", "127.0.0.1:0"});
        child = spawn(QORD_SIM_BIN, extra, w.file(name));
    } else {
        child = spawn(RAW_BOARD_BIN, extra, w.file(name));
    }
    const std::string line = wait_for_line(child.outPath, "listening on", 10000);
    if (line.empty()) throw std::runtime_error("the board did not start");
    port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
}

Board::~Board() {
    kill(child.pid, SIGKILL);
    wait_child(child.pid);
}

UpgradeRun upgrade_once(const Work& w, const std::string& image, int index, ClientKind client,
                        BoardKind board, const std::vector<std::string>& boardArgs) {
    Board b(board, w, "board" + std::to_string(index) + ".out", boardArgs);
    Child c = client == ClientKind::kQorc
                  ? spawn(QORC_BIN, {"--url", b.url(), "sysupgrade", image})
                  : spawn(RAW_CLIENT_BIN, {std::to_string(b.port), "upgrade", image});
    const std::string line = wait_for_line(b.child.outPath, "bytes in ", 600000);
    kill(c.pid, SIGKILL);
    const long peak = wait_child(c.pid);
    if (client == ClientKind::kQorc && read_file(kMarker) == std::to_string(c.pid)) {
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
    Child c = spawn(binary, args);
    int status = 0;
    wait_child(c.pid, &status);
    if (status != 0) throw std::runtime_error(binary + " failed");
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
    Child c = spawn(RAW_CLIENT_BIN, {std::to_string(port), "round_trip", std::to_string(rounds)},
                    w.file("out"));
    int status = 0;
    wait_child(c.pid, &status);
    if (status != 0) throw std::runtime_error("raw_client round_trip failed");
    return std::stod(read_file(w.file("out")));
}

double raw_lockstep_mbps(size_t total) {
    unsigned short port;
    const int listener = listen_loopback(port);
    std::thread server([&] {
        const int fd = accept_one(listener, true);
        std::vector<char> chunk(kChunk);
        const char next[16] = {};
        for (size_t done = 0; done < total; done += kChunk) {
            write_all(fd, next, sizeof next);
            read_exact(fd, chunk.data(), kChunk);
        }
        close(fd);
    });
    const int fd = connect_loopback(port, true);
    std::vector<char> chunk(kChunk, 'x');
    char next[16];
    const auto start = Clock::now();
    for (size_t done = 0; done < total; done += kChunk) {
        read_exact(fd, next, sizeof next);
        write_all(fd, chunk.data(), kChunk);
    }
    server.join();
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    close(fd);
    close(listener);
    return static_cast<double>(total) / micros;
}

double raw_ping_pong_us(int rounds) {
    unsigned short port;
    const int listener = listen_loopback(port);
    std::thread server([&] {
        const int fd = accept_one(listener, true);
        char c;
        for (int i = 0; i < rounds; ++i) {
            read_exact(fd, &c, 1);
            write_all(fd, &c, 1);
        }
        close(fd);
    });
    const int fd = connect_loopback(port, true);
    char c = 'p';
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) {
        write_all(fd, &c, 1);
        read_exact(fd, &c, 1);
    }
    const double micros = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    server.join();
    close(fd);
    close(listener);
    return micros / rounds;
}

}  // namespace bench
