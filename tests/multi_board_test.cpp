// Three boards behind one host, as on a real bench: each board answers on
// 192.168.15.1:7000 from a network namespace of its own, behind a veth link
// to a host namespace. Every address here exists only inside namespaces
// this test makes, and all of them go when it ends, also on failure.
#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <dirent.h>
#include <future>
#include <memory>

#include "harness.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

const char* const kIp = "/bin/ip";
const std::string kBoard = "192.168.15.1";
const std::string kPrefix = "qmb";  // our namespaces: qmb<pid>h, qmb<pid>b1...

Result ip(const std::vector<std::string>& args) {
    return run_command(kIp, args, 20000);
}

// Namespaces left by an earlier run that was killed: its pid is gone.
void remove_stale_namespaces() {
    DIR* dir = opendir("/run/netns");
    if (!dir) return;
    while (dirent* e = readdir(dir)) {
        const std::string name = e->d_name;
        if (name.compare(0, kPrefix.size(), kPrefix) != 0) continue;
        const pid_t pid = static_cast<pid_t>(atol(name.c_str() + kPrefix.size()));
        if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) ip({"netns", "del", name});
    }
    closedir(dir);
}

class Topology {
  public:
    static constexpr int kBoards = 3;

    Topology() : m_host(kPrefix + std::to_string(getpid()) + "h") {
        remove_stale_namespaces();
        for (int i = 1; i <= kBoards; ++i) {
            m_boards.push_back(kPrefix + std::to_string(getpid()) + "b" + std::to_string(i));
        }
    }
    ~Topology() {
        m_sims.clear();  // kills what still runs
        for (const std::string& ns : m_made) ip({"netns", "del", ns});
    }

    // False (with the reason in `why`) when namespaces cannot be made here.
    bool build(std::string& why) {
        for (const std::string& ns : all()) {
            const Result r = ip({"netns", "add", ns});
            if (r.status != 0) {
                why = "cannot make network namespaces: " + r.err;
                return false;
            }
            m_made.push_back(ns);
            run_ok({"-n", ns, "link", "set", "lo", "up"});
        }
        for (int i = 1; i <= kBoards; ++i) {
            const std::string& board = m_boards[i - 1];
            run_ok({"-n", m_host, "link", "add", link(i), "type", "veth", "peer", "name", "eth0",
                    "netns", board});
            run_ok({"-n", board, "addr", "add", kBoard + "/24", "dev", "eth0"});
            run_ok({"-n", board, "link", "set", "eth0", "up"});
            run_ok({"-n", m_host, "link", "set", link(i), "up"});
        }
        return true;
    }

    // The host's own link to board i.
    static std::string link(int i) { return "brd" + std::to_string(i); }
    static std::string host_address(int i) { return "192.168.15.10" + std::to_string(i); }

    // Distinct host addresses, with a routing table per source address.
    void use_distinct_addresses() {
        for (int i = 1; i <= kBoards; ++i) {
            const std::string table = std::to_string(100 + i);
            run_ok({"-n", m_host, "addr", "add", host_address(i) + "/24", "dev", link(i)});
            run_ok({"-n", m_host, "rule", "add", "from", host_address(i), "table", table});
            run_ok({"-n", m_host, "route", "add", "192.168.15.0/24", "dev", link(i), "src",
                    host_address(i), "table", table});
        }
    }

    // The same host address on every link: only the interface tells them apart.
    void use_one_address() {
        for (int i = 1; i <= kBoards; ++i) {
            run_ok({"-n", m_host, "rule", "del", "from", host_address(i)});
            run_ok({"-n", m_host, "addr", "flush", "dev", link(i)});
            run_ok({"-n", m_host, "addr", "add", "192.168.15.100/24", "dev", link(i)});
        }
    }

    // qord-sim on board i, with PSI that names the board; returns once it
    // listens.
    void start_board(int i, const TempDir& dir) {
        const std::string n = std::to_string(i);
        const std::string state = dir.write(
            "state" + n + ".json",
            "{\"version\": \"board-" + n + " 1.0\", \"devices\": [{\"id\": 0, " +
                "\"mac\": \"02:00:00:00:00:0" + n + "\", \"psi\": {\"board\": " + n + "}}]}");
        m_sims.push_back(std::make_unique<support::ServerProcess>(
            kIp, std::vector<std::string>{"netns", "exec", m_boards[i - 1], qord_sim_binary(),
                                          "--listen", kBoard + ":7000", "--state", state,
                                          "--reboot-delay-ms", "200", "--reboot-grace-ms", "50"}));
    }
    std::string board_out(int i) const { return m_sims[i - 1]->out(); }

    // qorc in the host namespace.
    Result qorc(const std::string& bind, std::vector<std::string> args) const {
        args.insert(args.begin(),
                    {"netns", "exec", m_host, qorc_binary(), "--url", kBoard, "--bind", bind});
        return run_command(kIp, args, 60000);
    }

  private:
    std::vector<std::string> all() const {
        std::vector<std::string> names = m_boards;
        names.push_back(m_host);
        return names;
    }
    void run_ok(const std::vector<std::string>& args) {
        const Result r = ip(args);
        if (r.status != 0) {
            std::string line = "ip";
            for (const std::string& a : args) line += " " + a;
            throw std::runtime_error(line + ": " + r.err);
        }
    }

    std::string m_host;
    std::vector<std::string> m_boards;
    std::vector<std::string> m_made;
    std::vector<std::unique_ptr<support::ServerProcess>> m_sims;
};

std::string psi_line(int board) {
    return "{\"board\":" + std::to_string(board) + "}\n";
}

TEST(MultiBoard, EachBoardIsReachedByAddressOrByInterfaceAndUpgradesComeBackToIt) {
    REQUIRE_PRIVATE_TMP();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    Topology net;
    std::string why;
    if (!net.build(why)) GTEST_SKIP() << why;
    TempDir dir;
    for (int i = 1; i <= Topology::kBoards; ++i) net.start_board(i, dir);

    // Distinct host addresses with source routing: --bind ADDRESS.
    net.use_distinct_addresses();
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const Result r = net.qorc(Topology::host_address(i), {"psi_get"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find(psi_line(i)), std::string::npos) << "board " << i << ": " << r.out;
    }
    const std::string image2 = dir.write("fw2.img", "QORFW alone-2\nimage of board 2");
    const size_t others = count_of(net.board_out(1) + net.board_out(3), "connection from");
    const std::string fromHost = "connection from " + Topology::host_address(2) + ":";
    const size_t before = count_of(net.board_out(2), fromHost);
    const Result alone = net.qorc(Topology::host_address(2), {"sysupgrade", image2});
    EXPECT_EQ(alone.status, 0) << alone.out << alone.err;
    EXPECT_NE(alone.out.find("alone-2"), std::string::npos) << alone.out;
    EXPECT_EQ(count_of(net.board_out(2), "back on"), 1u);
    // The upgrade's connection, and the one after the reboot, came to board 2.
    EXPECT_EQ(count_of(net.board_out(2), fromHost), before + 2) << net.board_out(2);
    EXPECT_EQ(count_of(net.board_out(1) + net.board_out(3), "connection from"), others);

    // The same host address on every link: --bind INTERFACE.
    net.use_one_address();
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const Result r = net.qorc(Topology::link(i), {"psi_get"});
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_NE(r.out.find(psi_line(i)), std::string::npos) << "board " << i << ": " << r.out;
    }
    std::vector<std::future<Result>> upgrades;
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const std::string image = dir.write(
            "fw" + std::to_string(i) + "b.img",
            "QORFW together-" + std::to_string(i) + "\nimage of board " + std::to_string(i));
        upgrades.push_back(std::async(std::launch::async, [&net, i, image] {
            return net.qorc(Topology::link(i), {"sysupgrade", image});
        }));
    }
    for (int i = 1; i <= Topology::kBoards; ++i) {
        const Result r = upgrades[i - 1].get();
        EXPECT_EQ(r.status, 0) << "board " << i << ": " << r.out << r.err;
        EXPECT_NE(r.out.find("Upgraded to together-" + std::to_string(i)), std::string::npos)
            << r.out;
    }

    // Names that are neither an address nor an interface still resolve (and
    // fail: nothing answers in these namespaces); addresses the host lacks
    // still fail to bind.
    const Result unknown = net.qorc("no-such-board-name", {"fw_config_mode"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_NE(unknown.err.find("Failed to resolve hostname no-such-board-name"), std::string::npos)
        << unknown.err;
    const Result lacking = net.qorc("192.168.15.99", {"fw_config_mode"});
    EXPECT_EQ(lacking.status, 1);
    EXPECT_NE(lacking.err.find("Failed to bind to 192.168.15.99"), std::string::npos)
        << lacking.err;
}

}  // namespace
}  // namespace e2e
