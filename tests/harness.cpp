#include "harness.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "testing/emulator.h"

extern char** environ;

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

TempDir::TempDir() {
    char tmpl[] = "/tmp/qorc-e2e-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp failed");
    m_path = tmpl;
}

TempDir::~TempDir() {
    const std::string cmd = "rm -rf '" + m_path + "'";
    if (std::system(cmd.c_str()) != 0) {
        // Leftovers in /tmp are harmless.
    }
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    const std::string path = file(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return path;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

bool file_exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

Process::Process(const std::string& binary, const std::vector<std::string>& args,
                 const std::string& outPath, const std::string& errPath) {
    std::vector<std::string> all{binary};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(&a[0]);
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    const int rc = posix_spawn(&m_pid, binary.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) throw std::runtime_error("cannot start " + binary + ": " + strerror(rc));
}

Process::~Process() {
    if (running()) {
        kill(m_pid, SIGKILL);
        wait(5000);
    }
}

void Process::signal(int sig) {
    kill(m_pid, sig);
}

bool Process::running() {
    if (m_status >= 0) return false;
    int raw = 0;
    const pid_t r = waitpid(m_pid, &raw, WNOHANG);
    if (r == 0) return true;
    if (r == m_pid) m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return false;
}

int Process::wait(int timeoutMs) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (running()) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(m_pid, SIGKILL);
            int raw = 0;
            waitpid(m_pid, &raw, 0);
            m_status = 128 + SIGKILL;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return m_status;
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

Result run_command(const std::string& binary, const std::vector<std::string>& args, int timeoutMs) {
    TempDir dir;
    Result r;
    {
        Process p(binary, args, dir.file("out"), dir.file("err"));
        r.status = p.wait(timeoutMs);
    }
    r.out = read_file(dir.file("out"));
    r.err = read_file(dir.file("err"));
    return r;
}

Usage usage_of(pid_t pid) {
    const std::string dir = "/proc/" + std::to_string(pid);
    Usage u;
    std::istringstream status(read_file(dir + "/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 6, "VmRSS:") == 0) u.rssKib = std::stol(line.substr(6));
        if (line.compare(0, 8, "Threads:") == 0) u.threads = std::stol(line.substr(8));
    }
    // Fields 14 and 15 of stat, counted after the command name's ")".
    const std::string stat = read_file(dir + "/stat");
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string field;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) u.cpuTicks += std::stol(field);
    }
    if (DIR* fds = opendir((dir + "/fd").c_str())) {
        while (dirent* e = readdir(fds)) u.fds += e->d_name[0] != '.';
        closedir(fds);
    }
    return u;
}

Sim::Sim(std::vector<std::string> args, const std::string& listenHost) : m_host(listenHost) {
    args.insert(args.begin(), {"--listen", listenHost + ":0"});
    m_process = new Process(QORD_SIM_BIN, args, m_dir.file("out"), m_dir.file("err"));
    const std::string marker = "qord-sim listening on " + listenHost + ":";
    if (!wait_output(marker)) {
        throw std::runtime_error("qord-sim did not start: " + out() + err());
    }
    const std::string text = out();
    const size_t at = text.find(marker) + marker.size();
    m_port = static_cast<unsigned short>(std::stoi(text.substr(at)));
}

Sim::~Sim() {
    if (m_process->running()) stop();
    delete m_process;
}

std::string Sim::address() const {
    return m_host + ":" + std::to_string(m_port);
}

std::string Sim::out() const {
    return read_file(m_dir.file("out"));
}

std::string Sim::err() const {
    return read_file(m_dir.file("err"));
}

bool Sim::wait_output(const std::string& text, int timeoutMs) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (std::chrono::steady_clock::now() < deadline) {
        const std::string o = out();
        if (o.find(text) != std::string::npos && o.find('\n', o.find(text)) != std::string::npos) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

int Sim::stop() {
    m_process->signal(SIGTERM);
    return m_process->wait(10000);
}

std::string closed_address() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
}

}  // namespace e2e
