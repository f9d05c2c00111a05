// SPDX-License-Identifier: Apache-2.0
// Three boards behind one host, as on a real bench: each board answers on
// 192.168.15.1:7000 from a network namespace of its own, behind a veth link
// to a host namespace. Every address here exists only inside namespaces
// this test makes, and all of them go when it ends, also on failure.
#include <unistd.h>
#include <stdexcept>

#include <gtest/gtest.h>

#include <future>
#include <memory>

#include "harness.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const std::string kBoard = "192.168.15.1";

// Shell steps on the namespaces $1h (the host) and $1b1..$1b3 (the boards):
// each board answers on 192.168.15.1 behind the host's link brd1..brd3.
const char* const kBuild = R"(set -e
ip netns add $1h; ip -n $1h link set lo up
for i in 1 2 3; do
  ip netns add $1b$i; ip -n $1b$i link set lo up
  ip -n $1h link add brd$i type veth peer name eth0 netns $1b$i
  ip -n $1b$i addr add 192.168.15.1/24 dev eth0; ip -n $1b$i link set eth0 up
  ip -n $1h link set brd$i up
done)";
// Distinct host addresses, with a routing table per source address.
const char* const kDistinctAddresses = R"(set -e; for i in 1 2 3; do
  ip -n $1h addr add 192.168.15.10$i/24 dev brd$i
  ip -n $1h rule add from 192.168.15.10$i table 10$i
  ip -n $1h route add 192.168.15.0/24 dev brd$i src 192.168.15.10$i table 10$i
done)";
// The same host address on every link: only the interface tells them apart.
const char* const kOneAddress = R"(set -e; for i in 1 2 3; do
  ip -n $1h rule del from 192.168.15.10$i
  ip -n $1h addr flush dev brd$i; ip -n $1h addr add 192.168.15.100/24 dev brd$i
done)";

class Topology : public Namespaces {
  public:
    static constexpr int kBoards = 3;

    Topology() : Namespaces("qmb", {"h", "b1", "b2", "b3"}) {}
    ~Topology() { m_sims.clear(); }  // kills what still runs, before the namespaces go

    static std::string link(int i) { return "brd" + std::to_string(i); }
    static std::string host_address(int i) { return "192.168.15.10" + std::to_string(i); }

    // qord-sim on board i, with PSI that names the board; returns once it
    // listens.
    void start_board(int i, const TempDir& dir) {
        const std::string n = std::to_string(i);
        const std::string state = dir.write(
            "state" + n + ".json",
            "{\"version\": \"board-" + n + " 1.0\", \"devices\": [{\"id\": 0, " +
                "\"mac\": \"02:00:00:00:00:0" + n + "\", \"psi\": {\"board\": " + n + "}}]}");
        m_sims.push_back(std::make_unique<support::ServerProcess>(
            "/bin/ip",
            exec("b" + n, {qord_sim_binary(), "--listen", kBoard + ":7000", "--state", state,
                           "--reboot-delay-ms", "200", "--reboot-grace-ms", "50"})));
    }
    std::string board_out(int i) const { return m_sims[i - 1]->out(); }

    // qorc in the host namespace.
    Result qorc(const std::string& bind, std::vector<std::string> args) const {
        args.insert(args.begin(), {qorc_binary(), "--url", kBoard, "--bind", bind});
        return run_command("/bin/ip", exec("h", args), 60000);
    }

  private:
    std::vector<std::unique_ptr<support::ServerProcess>> m_sims;
};

std::string psi_line(int board) {
    return "{\"board\":" + std::to_string(board) + "}\n";
}

TEST(MultiBoard, EachBoardIsReachedByAddressOrByInterfaceAndUpgradesComeBackToIt) {
    REQUIRE_PRIVATE_TMP();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    Topology net;
    try {
        net.sh(kBuild);
    } catch (const std::runtime_error& e) {
        GTEST_SKIP() << "cannot make network namespaces: " << e.what();
    }
    TempDir dir;
    for (int i = 1; i <= Topology::kBoards; ++i) net.start_board(i, dir);

    // Each board answers with its own PSI.
    auto each_answers = [&](std::string (*bind)(int)) {
        for (int i = 1; i <= Topology::kBoards; ++i) {
            EXPECT_RUN(net.qorc(bind(i), {"psi_get"}), 0, hello(kBoard + ":7000") + psi_line(i), "")
                << bind(i);
        }
    };
    // Distinct host addresses with source routing: --bind ADDRESS.
    net.sh(kDistinctAddresses);
    each_answers(Topology::host_address);
    const std::string image2 = dir.write("fw2.img", "QORFW alone-2\nimage of board 2");
    const size_t others = count_of(net.board_out(1) + net.board_out(3), "connection from");
    const std::string fromHost = "connection from " + Topology::host_address(2) + ":";
    const size_t before = count_of(net.board_out(2), fromHost);
    const Result alone = net.qorc(Topology::host_address(2), {"sysupgrade", image2});
    EXPECT_RUN(alone, 0, "{any}Upgraded to alone-2\n{any}", "");
    EXPECT_EQ(count_of(net.board_out(2), "back on"), 1u);
    // The upgrade's connection, and the one after the reboot, came to board 2.
    EXPECT_EQ(count_of(net.board_out(2), fromHost), before + 2) << net.board_out(2);
    EXPECT_EQ(count_of(net.board_out(1) + net.board_out(3), "connection from"), others);

    // The same host address on every link: --bind INTERFACE.
    net.sh(kOneAddress);
    each_answers(Topology::link);
    std::vector<std::future<Result>> upgrades;
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const std::string n = std::to_string(i);
        const std::string image = dir.write("fw" + n + ".img", "QORFW together-" + n + "\nimage");
        upgrades.push_back(std::async(std::launch::async, [&net, i, image] {
            return net.qorc(Topology::link(i), {"sysupgrade", image});
        }));
    }
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const Result r = upgrades[i - 1].get();
        EXPECT_RUN(r, 0, "{any}Upgraded to together-" + std::to_string(i) + "\n{any}", "");
    }

    // Names that are neither an address nor an interface still resolve (and
    // fail: nothing answers in these namespaces).
    EXPECT_RUN(net.qorc("no-such-board-name", {"fw_config_mode"}), 1, hello(kBoard + ":7000"),
               "Error: Failed to resolve hostname no-such-board-name\n");
}

}  // namespace
}  // namespace e2e
