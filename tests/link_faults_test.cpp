// SPDX-License-Identifier: Apache-2.0
// qorc against boards that vanish without a word, as real ones do when they
// lose power or reboot, and against boards that are only slow. A dead link must end in an error
// within 35 s of the fault; a board that still answers must be waited for. Each case has a lab of
// its own, and the cases run side by side. Root only.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <future>
#include <mutex>

#include "harness.h"
#include "hostile_board.h"
#include "testing/private_tmp.h"

namespace e2e {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// From the fault to qorc's error: 30 s of kernel limits and some slack.
constexpr double kReportedWithin = 35;
constexpr size_t kChunk = 4096;
constexpr size_t kFaultAt = 8 * kChunk;  // bytes of the image received when a board acts

const char* const kBoard = "192.168.15.1";
const char* const kBoardAddress = "192.168.15.1:7000";  // qorc's default port

// The host $1h and the board $1b, joined by a veth pair; the board's link
// "sink" is left down, so that whatever is sent there is lost.
const char* const kBuild = R"(set -e
for n in h b; do ip netns add $1$n; ip -n $1$n link set lo up; done
ip -n $1h link add up0 type veth peer name eth0 netns $1b
ip -n $1h addr add 192.168.15.100/24 dev up0; ip -n $1h link set up0 up
ip -n $1b addr add 192.168.15.1/24 dev eth0; ip -n $1b link set eth0 up
ip -n $1b link add sink type veth peer name sink1
tc -n $1b qdisc add dev eth0 clsact)";
// Every packet that crosses the board's link in direction $2 goes to the sink.
const char* const kDrop =
    "tc -n $1b filter add dev eth0 $2 protocol all u32 match u32 0 0 action mirred egress "
    "redirect dev sink";

// A board (on 192.168.15.1:7000) and a host joined by a link that a case can
// break: the board "vanishes" when a tc rule on its end sends every packet,
// either way, to a link that is down, so that it neither answers nor
// refuses. The namespaces qlf<pid>_<index>h and ...b go with the lab, also
// on failure. Threads: the case's own thread builds the lab, starts qorc and
// finishes; board threads may call the faults, stop_listening, unacked and
// fail at the same time; boards change only before qorc starts and once it
// has ended.
class Lab {
  public:
    Lab(int index, const char* name)
        : m_name(name), m_net("qlf", {"h", "b"}, "_" + std::to_string(index)) {}

    // Makes the namespaces and the links, and checks that a vanished board
    // really is silent.
    void build() {
        m_net.sh(kBuild);
        if (!board_answers()) fail("the board is not reachable");
        vanish();
        if (board_answers()) fail("the board still answers when it vanished");
        revive();
        if (!board_answers()) fail("the board does not come back");
        std::lock_guard<std::mutex> lock(m_mutex);
        m_fault = Clock::time_point();
    }

    // Faults. The first one marks the time the fault began.
    void drop(const char* way) {  // what crosses the board's link that way is lost
        mark_fault();
        m_net.sh(kDrop, {way});
    }
    void vanish() {
        drop("ingress");
        drop("egress");
    }
    void revive() {
        m_net.sh("tc -n $1b filter del dev eth0 ingress && tc -n $1b filter del dev eth0 egress");
    }
    void mark_fault() {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fault == Clock::time_point()) m_fault = Clock::now();
    }

    // A socket listening on the board's address.
    int listen() {
        int fd = -1;
        std::thread([&] {  // the socket stays in the namespace the thread entered
            const int ns = open(("/run/netns/" + m_net.name("b")).c_str(), O_RDONLY | O_CLOEXEC);
            sockaddr_in a{AF_INET, htons(7000), {}, {}};
            inet_pton(AF_INET, kBoard, &a.sin_addr);
            if (ns >= 0 && setns(ns, CLONE_NEWNET) == 0)
                fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (fd >= 0 && (bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 ||
                            ::listen(fd, 8) != 0)) {
                close(fd);
                fd = -1;
            }
            if (ns >= 0) close(ns);
        })
            .join();
        if (fd < 0) fail("cannot listen on the board");
        return fd;
    }
    // Hands every connection in turn to `script` on a board thread until the
    // case is over; std::runtime_error ends a connection's script quietly.
    void serve(HostileBoard::Script script) {
        m_boards.push_back(std::make_unique<HostileBoard>(std::move(script), listen()));
    }
    // Connections to the board's address are refused from now on.
    void stop_listening() { m_boards.back()->stop_listening(); }
    void start_sim(std::vector<std::string> args) {
        args.insert(args.begin(), {qord_sim_binary(), "--listen", kBoardAddress});
        m_sim = std::make_unique<support::ServerProcess>("/bin/ip", m_net.exec("b", args));
    }
    std::string sim_out() const { return m_sim->out(); }

    void start_qorc(std::vector<std::string> args) {  // --url is the board's
        args.insert(args.begin(), {qorc_binary(), "--url", kBoard});
        m_started = Clock::now();
        m_qorc = std::make_unique<Process>("/bin/ip", m_net.exec("h", args), dir.file("out"),
                                           dir.file("err"));
    }
    bool qorc_running() { return m_qorc && m_qorc->running(); }
    // Bytes qorc has written that the board has not acknowledged, from the
    // host's socket table; -1 without a connection.
    long unacked() {
        const Result r = run_command(
            "/bin/ip",
            m_net.exec("h", {"ss", "-tnH", "state", "established", "dst", kBoardAddress}));
        long received = 0, sent = 0;  // the socket's queues
        return sscanf(r.out.c_str(), "%ld %ld", &received, &sent) == 2 ? sent : -1;
    }

    // The case is not what it claims to be: a failure of the test, and
    // std::runtime_error to end the board's script.
    void fail(const std::string& why) {
        if (!m_failed.exchange(true)) ADD_FAILURE() << m_name << ": " << why;
        throw std::runtime_error(why);
    }
    bool failed() const { return m_failed; }

    // Waits for qorc (at most 120 s), then ends the board threads. Sets
    // took (seconds from qorc's start to its exit) and from_fault (from the
    // first fault to the exit; -1: no fault).
    Result finish() {
        Result r;
        if (m_qorc) {
            r.status = m_qorc->wait(120000);
            const auto end = Clock::now();
            took = std::chrono::duration<double>(end - m_started).count();
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_fault != Clock::time_point())
                from_fault = std::chrono::duration<double>(end - m_fault).count();
        }
        r.out = read_file(dir.file("out"));
        r.err = read_file(dir.file("err"));
        m_boards.clear();
        return r;
    }

    TempDir dir;
    std::unique_ptr<support::RawListener> kept;  // a listener nobody serves
    double took = 0, from_fault = -1;

  private:
    // A connection to a port where nothing listens is refused by a board
    // that is there, and goes unanswered when it vanished.
    bool board_answers() {
        const std::vector<std::string> connect = {"timeout", "1", "bash", "-c",
                                                  std::string(": </dev/tcp/") + kBoard + "/9"};
        return run_command("/bin/ip", m_net.exec("h", connect)).status != 124;  // 124: timed out
    }

    const char* m_name;
    Namespaces m_net;
    std::mutex m_mutex;         // board threads and the case's own
    Clock::time_point m_fault;  // guarded by m_mutex
    std::atomic<bool> m_failed{false};
    Clock::time_point m_started;
    // Destroyed in this order: qorc is killed, the simulator stopped, the
    // board threads joined.
    std::vector<std::unique_ptr<HostileBoard>> m_boards;
    std::unique_ptr<support::ServerProcess> m_sim;
    std::unique_ptr<Process> m_qorc;
};

std::string image(Lab& lab, size_t size) {
    return lab.dir.write("fw.img", std::string(size, '\x5a'));
}

// An upgrade whose board calls `before` and `after` with the bytes received,
// around each NEXT it sends.
void upgrade(Lab& lab, std::function<void(size_t)> before, std::function<void(size_t)> after) {
    auto script = std::make_shared<UpgradeScript>();
    script->before_next = std::move(before);
    script->after_next = std::move(after);
    lab.serve([script](BoardConnection& c, int i) { (*script)(c, i); });
    lab.start_qorc({"sysupgrade", image(lab, 64 * kChunk), "-t", "20"});
}

void all_acknowledged(Lab& lab) {
    if (!eventually([&] { return lab.unacked() == 0; }, 5000, 20))
        lab.fail("a chunk stays unacked");
}

struct Case {
    const char* name;
    void (*drive)(Lab&);
    // A dead link: status 1 and this line on standard error, within
    // kReportedWithin of the fault. Empty: a live board; the run succeeds.
    std::string error;
    std::string shows;  // on standard output
    double at_least;    // seconds the run takes at least
};

const Case kCases[] = {
    {"power loss mid-upload, a chunk unacknowledged",
     [](Lab& lab) {
         const auto before = [&lab](size_t got) {
             if (got != kFaultAt) return;
             all_acknowledged(lab);
             lab.drop("ingress");
         };
         upgrade(lab, before, [&lab](size_t got) {
             if (got != kFaultAt) return;
             // qorc answers the NEXT with a chunk that never arrives.
             if (!eventually([&] { return lab.unacked() > 0; }, 5000, 20))
                 lab.fail("nothing in flight");
             lab.vanish();
             throw std::runtime_error("power lost");
         });
     },
     "Error: Connection lost\n", "Upgrading...", 0},
    // Takes the command and never answers; its stack answers the keepalive
    // probes for a while, then the power goes.
    {"silent board loses power",
     [](Lab& lab) {
         lab.serve([&lab](BoardConnection& c, int) {
             c.handshake();
             c.next();
             std::this_thread::sleep_for(seconds(15));
             lab.vanish();
         });
         lab.start_qorc({"fw_config_mode"});
     },
     "Error: Connection lost\n", "", 15},
    // Takes the command, goes off (its stack forgets the connection, and the
    // reset that says so is lost) and comes back a few seconds later.
    {"board reboots without closing",
     [](Lab& lab) {
         lab.serve([&lab](BoardConnection& c, int) {
             c.handshake();
             c.next();
             all_acknowledged(lab);  // qorc has nothing left to send
             lab.vanish();
             const linger abort{1, 0};
             setsockopt(c.fd(), SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
             c.close();
             lab.stop_listening();
             std::this_thread::sleep_for(seconds(3));
             lab.revive();
         });
         lab.start_qorc({"fw_config_mode"});
     },
     "Error: Connection lost\n", "", 0},
    // Back from the upgrade's reboot, the board reports its boot unfinished
    // while qorc polls, then dies.
    {"board dies during the boot-end wait",
     [](Lab& lab) {
         lab.start_sim(
             {"--reboot-delay-ms", "200", "--reboot-grace-ms", "50", "--boot-time-ms", "600000"});
         lab.start_qorc({"sysupgrade", image(lab, 3 * kChunk), "-t", "30"});
         if (!eventually([&] { return count_of(lab.sim_out(), "connection from") >= 2; }, 30000,
                         20)) {
             lab.fail("qorc never came back after the reboot");
         }
         std::this_thread::sleep_for(seconds(3));
         // At least two polls answered "not yet", one dot each.
         if (read_file(lab.dir.file("out")).find("Rebooting.....") == std::string::npos)
             lab.fail("no boot-end polls");
         lab.vanish();
     },
     "Error: Connection lost\n", "Rebooting...", 0},
    {"SYNs unanswered",
     [](Lab& lab) {
         lab.vanish();
         lab.start_qorc({"fw_config_mode"});
     },
     "Error: Timeout occured\n", "", 29.5},
    {"handshake never answered",
     [](Lab& lab) {
         lab.kept = std::make_unique<support::RawListener>(
             lab.listen());  // the stack accepts; nobody reads
         lab.mark_fault();
         lab.start_qorc({"fw_config_mode"});
     },
     "Error: Timeout occured\n", "", 29.5},
    {"answers fw_config_mode after 40 s",
     [](Lab& lab) {
         lab.serve([](BoardConnection& c, int) {
             c.handshake();
             const wire::Message r = c.next();
             std::this_thread::sleep_for(seconds(40));
             c.answer(r, kDone, {wire::uint_field(1, 1)});  // is_fff
             c.wait_closed();
         });
         lab.start_qorc({"fw_config_mode"});
     },
     "", "FW configuration mode: FFF\n", 40},
    {"pauses 40 s before a NEXT",
     [](Lab& lab) {
         upgrade(
             lab,
             [](size_t got) {
                 if (got == kFaultAt) std::this_thread::sleep_for(seconds(40));
             },
             nullptr);
     },
     "", "Upgrade done with success\n", 40},
    // Takes none of the 8 MiB for 25 s: its receive window stays shut.
    {"reads nothing for 25 s of an 8 MiB psi_set",
     [](Lab& lab) {
         constexpr size_t kSize = 8u << 20;
         const std::string json = "{\"blob\": \"" + std::string(kSize, 'x') + "\"}";
         lab.serve([&lab](BoardConnection& c, int) {
             c.handshake();
             const wire::Message get = c.next();
             c.answer(get, kDone, {wire::uint_field(1, 0)});  // device OK
             std::this_thread::sleep_for(seconds(25));
             if (!lab.qorc_running() || lab.unacked() <= 0) lab.fail("qorc was never held up");
             const wire::Message set = c.next();
             if (!set.is("device.psi.set") || set.bodies.at(0).size() < kSize)
                 lab.fail("no psi_set");
             c.answer(set, kDone);
             c.wait_closed();
         });
         lab.start_qorc({"psi_set", lab.dir.write("psi.json", json)});
     },
     "", "", 25},
};

void run_case(int index, const Case& c) {
    SCOPED_TRACE(c.name);
    Lab lab(index, c.name);
    try {
        lab.build();
        c.drive(lab);
    } catch (const std::exception& e) {
        if (!lab.failed()) ADD_FAILURE() << c.name << ": " << e.what();
        return;
    }
    const Result run = lab.finish();
    printf("%-45s status %d after %.1f s, %.1f s after the fault\n", c.name, run.status, lab.took,
           lab.from_fault);
    if (lab.failed()) return;
    EXPECT_RUN(run, c.error.empty() ? 0 : 1, "{any}" + c.shows + "{any}",
               "{any}" + c.error + "{any}");
    EXPECT_GE(lab.took, c.at_least);
    if (c.error.empty()) return;
    EXPECT_GE(lab.from_fault, 0.0) << "no fault";
    EXPECT_LE(lab.from_fault, kReportedWithin);
}

TEST(LinkFaults, DeadLinksEndInAnErrorLiveBoardsAreWaitedFor) {
    REQUIRE_PRIVATE_TMP();
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    std::vector<std::future<void>> runs;
    for (const Case& c : kCases) {
        const int index = static_cast<int>(runs.size());
        runs.push_back(std::async(std::launch::async, [index, &c] { run_case(index, c); }));
    }
    for (auto& run : runs) run.get();
}

}  // namespace
}  // namespace e2e
