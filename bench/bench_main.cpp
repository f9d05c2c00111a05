// qorc benchmarks. Every figure is set beside a reference measured in the
// same run on the same machine, so the ratios mean something on a noisy box.
// Prints a Markdown table.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "bench_util.h"
#include "qor/client.h"

namespace bench {
namespace {

constexpr size_t kChunk = 4096;
const std::string kMarker = "/tmp/qor_sysupgrade";

struct Work {
    std::string dir;
    Work() {
        char tmpl[] = "/tmp/qorc-bench-XXXXXX";
        dir = mkdtemp(tmpl);
    }
    ~Work() {
        const std::string cmd = "rm -rf '" + dir + "'";
        if (std::system(cmd.c_str()) != 0) std::cerr << "could not remove " << dir << "\n";
    }
    std::string file(const std::string& name) const { return dir + "/" + name; }
};

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

// A simulator on a free port; returns its port.
struct SimProcess {
    Child child;
    unsigned short port = 0;
    SimProcess(const Work& w, const std::string& name, std::vector<std::string> extra = {}) {
        extra.insert(extra.begin(), {"--listen", "127.0.0.1:0"});
        child = spawn(QORD_SIM_BIN, extra, w.file(name));
        const std::string line = wait_for_line(child.outPath, "listening on", 10000);
        if (line.empty()) throw std::runtime_error("qord-sim did not start");
        port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
    }
    ~SimProcess() {
        kill(child.pid, SIGKILL);
        wait_child(child.pid);
    }
    std::string url() const { return "127.0.0.1:" + std::to_string(port); }
};

struct UpgradeRun {
    double mbps;
    long peakKiB;
};

// One upgrade, timed by the simulator from the first chunk to the last.
// qorc is stopped as soon as the image is through: the reboot that follows
// is not what is measured.
UpgradeRun upgrade_once(const Work& w, const std::string& image, int index,
                        const std::vector<std::string>& simArgs = {}) {
    SimProcess sim(w, "sim" + std::to_string(index) + ".out", simArgs);
    Child qorc = spawn(QORC_BIN, {"--url", sim.url(), "sysupgrade", image});
    const std::string line = wait_for_line(sim.child.outPath, "bytes in ", 600000);
    kill(qorc.pid, SIGKILL);
    const long peak = wait_child(qorc.pid);
    if (read_file(kMarker) == std::to_string(qorc.pid)) std::remove(kMarker.c_str());
    if (line.empty()) throw std::runtime_error("upgrade did not finish");
    std::istringstream in(line.substr(line.find("received ") + 9));
    double bytes = 0, micros = 0;
    std::string word;
    in >> bytes >> word >> word >> micros;
    return {bytes / micros, peak};
}

// The same lockstep with plain sockets: one 4096-byte write per chunk, a
// small answer per chunk, TCP_NODELAY on both ends.
double raw_lockstep_once(size_t total) {
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

double wall_ms(const std::string& binary, const std::vector<std::string>& args) {
    const auto start = Clock::now();
    Child c = spawn(binary, args);
    int status = 0;
    wait_child(c.pid, &status);
    if (status != 0) throw std::runtime_error(binary + " failed");
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
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

double command_round_trip_us(unsigned short port, int rounds) {
    qor::Client client;
    client.connect("127.0.0.1", std::to_string(port), "", 0);
    bool fff = false;
    client.fw_config_mode(fff);  // warm up
    const auto start = Clock::now();
    for (int i = 0; i < rounds; ++i) client.fw_config_mode(fff);
    return std::chrono::duration<double, std::micro>(Clock::now() - start).count() / rounds;
}

std::string fmt(double v, int decimals = 2) {
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

std::string signed_fmt(double v) {
    char b[64];
    std::snprintf(b, sizeof b, "%+.2f", v);
    return b;
}

std::string cell(const Stats& s, int decimals) {
    return fmt(s.median, decimals) + " (" + fmt(s.min, decimals) + "–" + fmt(s.max, decimals) + ")";
}

void row(const std::string& what, const Stats& ours, const Stats& ref, double ratio,
         const std::string& target, int decimals) {
    std::cout << "| " << what << " | " << cell(ours, decimals) << " | " << cell(ref, decimals)
              << " | " << fmt(ratio) << " | " << target << " |" << std::endl;
}

struct Pair {
    Stats ours, ref;
    double ratio() const { return ours.median / ref.median; }
};

// Runs the two sides of a comparison in turns, so that both see the same
// machine at the same moment.
Pair measure_pair(int runs, const std::function<double(int)>& ours,
                  const std::function<double(int)>& ref) {
    std::vector<double> a, b;
    for (int i = 0; i < runs; ++i) {
        a.push_back(ours(i));
        b.push_back(ref(i));
    }
    return {stats_of(a), stats_of(b)};
}

int run(int argc, char** argv) {
    const int repeat = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    Work w;
    std::cerr << "preparing images..." << std::endl;
    const std::string image64 = make_image(w, "64.img", 64u << 20);
    const std::string image1 = make_image(w, "1.img", 1u << 20);
    const std::string image256 = make_image(w, "256.img", 256u << 20);

    std::cout << "| measure | qorc: median (min–max) | reference: median (min–max) | ratio | "
                 "target |\n|---|---|---|---|---|"
              << std::endl;

    std::cerr << "upgrade throughput..." << std::endl;
    const Pair upgrade = measure_pair(
        repeat, [&](int i) { return upgrade_once(w, image64, i).mbps; },
        [](int) { return raw_lockstep_once(64u << 20); });
    row("upgrade of 64 MiB, MB/s (reference: raw 4096-byte lockstep)", upgrade.ours, upgrade.ref,
        upgrade.ratio(), "≥ 0.80", 1);

    // A board that writes each piece of a frame separately and without
    // TCP_NODELAY: only quick ACKs on our side keep its writes flowing.
    std::vector<double> split;
    for (int i = 0; i < repeat; ++i) {
        split.push_back(upgrade_once(w, image64, 50 + i, {"--split-frames"}).mbps);
    }
    const Stats sp = stats_of(split);
    row("the same against a board that splits its frames, MB/s", sp, upgrade.ref,
        sp.median / upgrade.ref.median, "—", 1);

    std::cerr << "exit latency..." << std::endl;
    {
        SimProcess sim(w, "latency.out");
        const std::string port = std::to_string(sim.port);
        const Pair exit = measure_pair(
            6 * repeat + 1,
            [&](int) {
                return wall_ms(QORC_BIN, {"--url", sim.url(), "discover"});
            },
            [&](int) { return wall_ms(PROBE_BIN, {port}); });
        row("`qorc discover`, ms (reference: connect + handshake + exit)", exit.ours, exit.ref,
            exit.ratio(), "≤ 1.50", 2);

        std::cerr << "command round trip..." << std::endl;
        const Pair trip = measure_pair(
            repeat, [&](int) { return command_round_trip_us(sim.port, 2000); },
            [](int) { return raw_ping_pong_us(2000); });
        row("`fw_config_mode` round trip, µs (reference: 1-byte TCP ping-pong)", trip.ours,
            trip.ref, trip.ratio(), "≤ 2.00", 1);
    }

    std::cerr << "peak memory..." << std::endl;
    const Pair memory = measure_pair(
        std::max(1, repeat / 2),
        [&](int i) { return upgrade_once(w, image256, 100 + i).peakKiB / 1024.0; },
        [&](int i) { return upgrade_once(w, image1, 200 + i).peakKiB / 1024.0; });
    std::cout << "| peak RSS of `qorc sysupgrade`, MiB: 256 MiB image vs 1 MiB image | "
              << cell(memory.ours, 2) << " | " << cell(memory.ref, 2) << " | "
              << signed_fmt(memory.ours.median - memory.ref.median) << " MiB | ≤ +2 MiB |"
              << std::endl;
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    try {
        return bench::run(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "benchmark failed: " << e.what() << std::endl;
        return 1;
    }
}
