// SPDX-License-Identifier: Apache-2.0
#include "link_lab.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

namespace e2e {

namespace {

const unsigned short kBoardPort = 7000;  // qorc's default
// The board's end of a connection as the kernel's socket table writes it.
const char* const kBoardInTable = "010FA8C0:1B58";

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

double seconds_between(Lab::Clock::time_point from, Lab::Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Runs `make` on a thread that has entered network namespace `ns`: the
// sockets it makes stay there, whichever thread uses them later.
int in_namespace(const std::string& ns, const std::function<int()>& make) {
    int result = -1;
    bool entered = false;
    std::thread([&] {
        const int fd = open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC);
        entered = fd >= 0 && setns(fd, CLONE_NEWNET) == 0;
        if (entered) result = make();
        if (fd >= 0) close(fd);
    }).join();
    if (!entered) throw std::runtime_error("cannot enter network namespace " + ns);
    return result;
}

sockaddr_in board_address(unsigned short port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, Lab::kBoard, &a.sin_addr);
    return a;
}

}  // namespace

Lab::Lab(int index) : m_net("qlf", {"h", "b"}, "_" + std::to_string(index)) {}

Lab::~Lab() {
    m_qorc.reset();  // kills what still runs
    m_sim.reset();
    m_boards.clear();
    for (int fd : m_kept) close(fd);
}

void Lab::build() {
    m_net.sh(kBuild);
    // The drop must really drop before any case relies on it.
    if (!board_answers()) throw std::runtime_error("the board is not reachable");
    vanish();
    if (board_answers()) throw std::runtime_error("the board still answers when it vanished");
    revive();
    if (!board_answers()) throw std::runtime_error("the board does not come back");
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fault = Clock::time_point();
}

void Lab::vanish() {
    drop("ingress");
    drop("egress");
}

void Lab::drop_inbound() {
    drop("ingress");
}

void Lab::revive() {
    m_net.sh("tc -n $1b filter del dev eth0 ingress && tc -n $1b filter del dev eth0 egress");
}

void Lab::pull_cable() {
    mark_fault();
    m_net.sh("ip -n $1h link set up0 down");
}

void Lab::mark_fault() {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fault == Clock::time_point()) m_fault = Clock::now();
}

void Lab::drop(const char* way) {
    mark_fault();
    m_net.sh(kDrop, {way});
}

// A connection to a port where nothing listens is refused by a board that
// is there, and goes unanswered when it vanished.
bool Lab::board_answers() {
    return in_namespace(m_net.name("h"), [] {
               const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
               const sockaddr_in a = board_address(9);
               ::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a);
               pollfd p{fd, POLLOUT, 0};
               const int r = poll(&p, 1, 1000);
               close(fd);
               return r;
           }) == 1;
}

int Lab::listen() {
    const int fd = in_namespace(m_net.name("b"), [] {
        const int s = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in a = board_address(kBoardPort);
        if (bind(s, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 || ::listen(s, 8) != 0) {
            close(s);
            return -1;
        }
        return s;
    });
    if (fd < 0) fail("cannot listen on the board");
    return fd;
}

void Lab::serve(HostileBoard::Script script) {
    m_boards.push_back(std::make_unique<HostileBoard>(std::move(script), listen()));
}

void Lab::start_sim(std::vector<std::string> args) {
    args.insert(args.begin(), {qord_sim_binary(), "--listen",
                               std::string(kBoard) + ":" + std::to_string(kBoardPort)});
    m_sim = std::make_unique<support::ServerProcess>("/bin/ip", m_net.exec("b", args));
}

std::string Lab::sim_out() const {
    return m_sim->out();
}

void Lab::start_qorc(const std::vector<std::string>& args) {
    std::vector<std::string> all = {qorc_binary(), "--url", kBoard};
    all.insert(all.end(), args.begin(), args.end());
    m_started = Clock::now();
    m_qorc = std::make_unique<Process>("/bin/ip", m_net.exec("h", all), m_dir.file("out"),
                                       m_dir.file("err"));
}

long Lab::unacked() {
    const Result r = run_command("/bin/ip", m_net.exec("h", {"cat", "/proc/net/tcp"}));
    std::istringstream lines(r.out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream f(line);
        std::string slot, local, remote, state, queues;
        if (!(f >> slot >> local >> remote >> state >> queues)) continue;
        if (remote != kBoardInTable || state != "01") continue;  // 01: established
        return std::stol(queues.substr(0, queues.find(':')), nullptr, 16);
    }
    return -1;
}

void Lab::fail(const std::string& why) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_trouble.empty()) m_trouble = why;
    }
    throw std::runtime_error(why);
}

LabOutcome Lab::finish() {
    LabOutcome o;
    if (m_qorc) {
        o.run.status = m_qorc->wait(120000);
        const auto end = Clock::now();
        o.took = seconds_between(m_started, end);
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_fault != Clock::time_point()) o.from_fault = seconds_between(m_fault, end);
    }
    o.run.out = qorc_out();
    o.run.err = read_file(m_dir.file("err"));
    m_boards.clear();
    std::lock_guard<std::mutex> lock(m_mutex);
    o.trouble = m_trouble;
    return o;
}

}  // namespace e2e
