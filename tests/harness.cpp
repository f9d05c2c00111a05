// SPDX-License-Identifier: Apache-2.0
#include "harness.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "testing/emulator.h"

namespace e2e {

const char* qorc_binary() {
    return QORC_BIN;
}
const char* qord_sim_binary() {
    return QORD_SIM_BIN;
}
bool under_emulator() {
    return !orvi::testing::emulator_command().empty();
}

Result run_qorc(const std::vector<std::string>& args, int timeoutMs) {
    // Without an explicit address qorc would aim at the board's default
    // one. Such runs get a network namespace of their own, with nothing in
    // it, so that no packet can ever leave this machine.
    std::string binary = QORC_BIN;
    std::vector<std::string> argv = args;
    if (std::find(args.begin(), args.end(), "--url") == args.end() &&
        std::find(args.begin(), args.end(), "-u") == args.end()) {
        binary = "/usr/bin/unshare";
        argv.insert(argv.begin(), {"--net", QORC_BIN});
    }
    return run_command(binary, argv, timeoutMs);
}

Result run_at(const std::string& address, std::vector<std::string> args, int timeoutMs) {
    args.insert(args.begin(), {"--url", address});
    return run_qorc(args, timeoutMs);
}

std::string hello(const std::string& address) {
    return "Try to connect to " + address + "\n";
}

std::string fill(std::string text, const std::vector<std::pair<std::string, std::string>>& values) {
    for (const auto& [key, value] : values) {
        for (size_t at; (at = text.find(key)) != std::string::npos;)
            text.replace(at, key.size(), value);
    }
    return text;
}

bool matches(std::string_view text, std::string_view pattern) {
    const size_t any = pattern.find("{any}");
    if (any == std::string::npos) return text == pattern;
    if (text.substr(0, any) != pattern.substr(0, any)) return false;
    text.remove_prefix(any);
    pattern.remove_prefix(any + 5);
    for (size_t at = 0; at <= text.size(); ++at) {
        if (pattern.empty() || matches(text.substr(at), pattern)) return true;
    }
    return false;
}

::testing::AssertionResult ran(const Result& r, int status, const std::string& out,
                               const std::string& err) {
    const bool outOk = matches(r.out, out), errOk = matches(r.err, err);
    if (r.status == status && outOk && errOk) return ::testing::AssertionSuccess();
    auto failure = ::testing::AssertionFailure();
    if (r.status != status) failure << "status " << r.status << ", expected " << status << "\n";
    // An upload's output may run to megabytes: its start says enough.
    if (!outOk) failure << "out:\n" << r.out.substr(0, 4000) << "\nexpected:\n" << out << "\n";
    if (!errOk) failure << "err:\n" << r.err.substr(0, 4000) << "\nexpected:\n" << err << "\n";
    return failure;
}

bool enter_private_network() {
    if (unshare(CLONE_NEWNET) != 0) return false;
    return run_command("/usr/sbin/ip", {"link", "set", "lo", "up"}).status == 0;
}

Namespaces::Namespaces(const std::string& prefix, std::vector<std::string> names,
                       const std::string& tag)
    : m_base(prefix + std::to_string(getpid()) + tag), m_names(std::move(names)) {
    sh(R"(for f in /run/netns/)" + prefix + R"(*; do
  n=${f##*/}; p=${n#)" +
       prefix + R"(}; p=${p%%[!0-9]*}
  [ -e "$f" ] && ! kill -0 "$p" 2>/dev/null && ip netns del "$n"
done; true)");
}

Namespaces::~Namespaces() {
    for (const std::string& n : m_names) run_command("/bin/ip", {"netns", "del", name(n)}, 20000);
}

void Namespaces::sh(const std::string& steps, const std::vector<std::string>& more) const {
    std::vector<std::string> args = {"-c", steps, "sh", m_base};
    args.insert(args.end(), more.begin(), more.end());
    const Result r = run_command("/bin/sh", args, 20000);
    if (r.status != 0) throw std::runtime_error(steps + ": " + r.err);
}

std::vector<std::string> Namespaces::exec(const std::string& n,
                                          std::vector<std::string> args) const {
    args.insert(args.begin(), {"netns", "exec", name(n)});
    return args;
}

Result run_command(const std::string& binary, const std::vector<std::string>& args, int timeoutMs) {
    TempDir dir;
    Process p(binary, args, dir.file("out"), dir.file("err"));
    const int status = p.wait(timeoutMs);  // reaped: the files are whole
    return {status, read_file(dir.file("out")), read_file(dir.file("err"))};
}

Usage usage_of(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    Usage u;
    u.rssKib = status_field(pid, "VmRSS:");
    u.threads = status_field(pid, "Threads:");
    // Fields 14 and 15 of stat, counted after the command name's ")".
    const std::string stat = read_file(dir + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) u.cpuTicks += std::stol(field);
    }
    u.fds = std::distance(std::filesystem::directory_iterator(dir + "/fd"), {});
    return u;
}

namespace {
std::vector<std::string> listening_on(const std::string& host, std::vector<std::string> args) {
    args.insert(args.begin(), {"--listen", host + ":0"});
    return args;
}
}  // namespace

Sim::Sim(std::vector<std::string> args, const std::string& listen_host)
    : ServerProcess(QORD_SIM_BIN, listening_on(listen_host, std::move(args))),
      m_host(listen_host) {}

Sim::~Sim() {
    if (process().running()) stop();
}

std::string Sim::address() const {
    return m_host + ":" + std::to_string(port());
}

bool Sim::wait_output(const std::string& text, int timeoutMs) const {
    return !support::wait_for_line(out_path(), text, timeoutMs).empty();
}

}  // namespace e2e
