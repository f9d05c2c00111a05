// SPDX-License-Identifier: Apache-2.0
// One measurement each: the runs the benchmark table is made of. Boards
// (qord-sim or the raw board) run as child processes on free loopback ports.
#pragma once

#include <string>
#include <vector>

#include "bench_util.h"
#include "files.h"
#include "process.h"

namespace bench {

// A scratch directory for images and outputs, removed at the end.
using Work = support::TempDir;

std::string make_image(const Work& w, const std::string& name, size_t size);

enum class BoardKind { kSim, kRaw };
enum class ClientKind { kQorc, kRaw };

// A board on a free port, ready to serve; killed when it goes.
class Board {
  public:
    explicit Board(BoardKind kind, std::vector<std::string> extra = {});
    unsigned short port() const { return m_server.port(); }
    std::string url() const { return "127.0.0.1:" + std::to_string(port()); }
    std::string out_path() const { return m_server.out_path(); }

  private:
    support::ServerProcess m_server;
};

struct UpgradeRun {
    double mbps;
    long clientPeakKiB;
};
// One upgrade of `image`, timed by the board from the first chunk to the
// last. qorc is stopped once the image is through: the reboot that follows
// is not what is measured.
UpgradeRun upgrade_once(const std::string& image, ClientKind client, BoardKind board,
                        const std::vector<std::string>& boardArgs = {});

// Wall time of a whole process, in ms; it must succeed.
double wall_ms(const std::string& binary, const std::vector<std::string>& args);
// Mean fw_config_mode round trip through qor::Client in this process, in µs.
double client_round_trip_us(unsigned short port, int rounds);
// The same from the raw client, in its own process.
double raw_client_round_trip_us(unsigned short port, int rounds);
// Plain TCP floors: a 4096-byte lockstep (MB/s) and a 1-byte ping-pong (µs).
double raw_lockstep_mbps(size_t total);
double raw_ping_pong_us(int rounds);

}  // namespace bench
