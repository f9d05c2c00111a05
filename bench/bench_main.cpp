// SPDX-License-Identifier: Apache-2.0
// qorc benchmarks. Each row sets two runs side by side, measured in turns
// (A B A B ...) in the same run on the same machine, so that the ratio means
// something on a noisy box. The references are a minimal board and a
// minimal client written by hand (raw_board, raw_client): the protocol's own
// limit here. Prints a Markdown table.
#include <cstdio>
#include <functional>
#include <iostream>

#include "runs.h"

namespace bench {
namespace {

std::string fmt(double v, int decimals = 2) {
    char b[64];
    std::snprintf(b, sizeof b, "%.*f", decimals, v);
    return b;
}

std::string cell(const Stats& s, int decimals) {
    return fmt(s.median, decimals) + " (" + fmt(s.min, decimals) + "–" + fmt(s.max, decimals) + ")";
}

struct Pair {
    Stats a, b;
    double ratio() const { return a.median / b.median; }
};

// Runs the two sides of a comparison in turns, so that both see the same
// machine at the same moment.
Pair measure_pair(int runs, const std::function<double(int)>& a,
                  const std::function<double(int)>& b) {
    std::vector<double> as, bs;
    for (int i = 0; i < runs; ++i) {
        as.push_back(a(i));
        bs.push_back(b(i));
    }
    return {stats_of(as), stats_of(bs)};
}

void row(const std::string& what, const Pair& p, const std::string& target, int decimals) {
    std::cout << "| " << what << " | " << cell(p.a, decimals) << " | " << cell(p.b, decimals)
              << " | " << fmt(p.ratio()) << " | " << target << " |" << std::endl;
}

int run(int argc, char** argv) {
    const int repeat = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
    Work w;
    std::cerr << "preparing images..." << std::endl;
    const std::string image64 = make_image(w, "64.img", 64u << 20);
    const std::string image1 = make_image(w, "1.img", 1u << 20);
    const std::string image256 = make_image(w, "256.img", 256u << 20);
    auto upgrade = [&](ClientKind c, BoardKind b, std::vector<std::string> args = {}) {
        return [&, c, b, args](int) { return upgrade_once(image64, c, b, args).mbps; };
    };
    const auto kQorc = ClientKind::kQorc, kRawClient = ClientKind::kRaw;
    const auto kSim = BoardKind::kSim, kRawBoard = BoardKind::kRaw;

    std::cout << "| measure: A vs B | A: median (min–max) | B: median (min–max) | A/B | target |\n"
                 "|---|---|---|---|---|"
              << std::endl;

    std::cerr << "upgrades..." << std::endl;
    row("upgrade of 64 MiB, MB/s: qorc vs raw client, both against the raw board",
        measure_pair(repeat, upgrade(kQorc, kRawBoard), upgrade(kRawClient, kRawBoard)), "≥ 0.95",
        1);
    row("upgrade, MB/s: raw client against `qord-sim` vs against the raw board",
        measure_pair(repeat, upgrade(kRawClient, kSim), upgrade(kRawClient, kRawBoard)), "≥ 0.90",
        1);
    row("upgrade, MB/s: qorc against `qord-sim` vs raw client against the raw board",
        measure_pair(repeat, upgrade(kQorc, kSim), upgrade(kRawClient, kRawBoard)), "—", 1);
    row("upgrade, MB/s: qorc against a raw board that splits its frames vs raw client against "
        "the raw board",
        measure_pair(repeat, upgrade(kQorc, kRawBoard, {"--split-frames"}),
                     upgrade(kRawClient, kRawBoard)),
        "≥ 0.80", 1);
    // What a board that splits its frames leaves to any client: the raw
    // client against it, acknowledging each first piece at once.
    row("floor, MB/s: raw client against the raw board that splits its frames vs against the "
        "raw board",
        measure_pair(repeat, upgrade(kRawClient, kRawBoard, {"--split-frames"}),
                     upgrade(kRawClient, kRawBoard)),
        "—", 1);
    row("floor, MB/s: raw client against the raw board vs plain TCP 4096-byte lockstep",
        measure_pair(repeat, upgrade(kRawClient, kRawBoard),
                     [](int) { return raw_lockstep_mbps(64u << 20); }),
        "—", 1);

    std::cerr << "one-shot runs and round trips..." << std::endl;
    {
        Board board(kRawBoard);
        const std::string port = std::to_string(board.port());
        row("`qorc discover`, ms vs handshake probe (connect, handshake, exit)",
            measure_pair(
                6 * repeat + 1,
                [&](int) {
                    return wall_ms(QORC_BIN, {"--url", board.url(), "discover"});
                },
                [&](int) { return wall_ms(PROBE_BIN, {port}); }),
            "≤ 1.15", 2);
        row("`qorc fw_config_mode`, whole process, ms vs raw client",
            measure_pair(
                6 * repeat + 1,
                [&](int) {
                    return wall_ms(QORC_BIN, {"--url", board.url(), "fw_config_mode"});
                },
                [&](int) {
                    return wall_ms(RAW_CLIENT_BIN, {port, "fw_config_mode"});
                }),
            "≤ 1.15", 2);
        row("`fw_config_mode` round trip, µs: `qor::Client` vs raw client",
            measure_pair(
                repeat, [&](int) { return client_round_trip_us(board.port(), 2000); },
                [&](int) { return raw_client_round_trip_us(board.port(), 2000); }),
            "≤ 1.30", 1);
        row("floor, µs: raw client round trip vs plain TCP 1-byte ping-pong",
            measure_pair(
                repeat, [&](int) { return raw_client_round_trip_us(board.port(), 2000); },
                [](int) { return raw_ping_pong_us(2000); }),
            "—", 1);
    }

    std::cerr << "peak memory..." << std::endl;
    const Pair memory = measure_pair(
        std::max(1, repeat / 2),
        [&](int) { return upgrade_once(image256, kQorc, kRawBoard).clientPeakKiB / 1024.0; },
        [&](int) { return upgrade_once(image1, kQorc, kRawBoard).clientPeakKiB / 1024.0; });
    char diff[32];
    std::snprintf(diff, sizeof diff, "%+.2f MiB", memory.a.median - memory.b.median);
    std::cout << "| peak RSS of `qorc sysupgrade`, MiB: 256 MiB image vs 1 MiB image | "
              << cell(memory.a, 2) << " | " << cell(memory.b, 2) << " | " << diff << " | ≤ +2 MiB |"
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
