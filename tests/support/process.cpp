// SPDX-License-Identifier: Apache-2.0
#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>

#include "eventually.h"

extern char** environ;

namespace support {

namespace {
// Under qemu-user (the armhf runs) a spawn is an emulated fork, and the child
// can hang on a lock of the emulator that another thread held at the fork,
// before it ever reaches exec. So starts are taken one at a time and each is
// confirmed: the write end of a pipe, which only this child holds, closes at
// its exec. A child that has not got there in time is killed and started
// again. Natively the confirmation comes at once.
std::mutex g_spawnMutex;
constexpr int kExecWaitMs = 5000;
constexpr int kStartAttempts = 3;

pid_t spawn_confirmed(const std::string& binary, const posix_spawn_file_actions_t& actions,
                      char* const argv[]) {
    std::lock_guard<std::mutex> lock(g_spawnMutex);
    for (int attempt = 1;; ++attempt) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            throw std::runtime_error("cannot start " + binary + ": " + strerror(errno));
        }
        pid_t pid = -1;
        const int rc = posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv, environ);
        close(ends[1]);
        if (rc != 0) {
            close(ends[0]);
            throw std::runtime_error("cannot start " + binary + ": " + strerror(rc));
        }
        pollfd exec_done{ends[0], POLLIN, 0};
        int r;
        do {
            r = poll(&exec_done, 1, kExecWaitMs);
        } while (r < 0 && errno == EINTR);
        close(ends[0]);
        if (r > 0) return pid;  // the end closed: exec'd, or died trying
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        if (attempt == kStartAttempts) {
            throw std::runtime_error("cannot start " + binary + ": it never reached exec");
        }
    }
}
}  // namespace

Process::Process(const std::string& binary, const std::vector<std::string>& args,
                 const std::string& out_path, const std::string& err_path) {
    std::vector<char*> argv{const_cast<char*>(binary.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    std::unique_ptr<posix_spawn_file_actions_t, int (*)(posix_spawn_file_actions_t*)> destroyed(
        &actions, posix_spawn_file_actions_destroy);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    const auto sink = [](const std::string& p) { return p.empty() ? "/dev/null" : p.c_str(); };
    posix_spawn_file_actions_addopen(&actions, 1, sink(out_path), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, sink(err_path), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    m_pid = spawn_confirmed(binary, actions, argv.data());
}

Process::~Process() {
    if (running()) {
        kill(m_pid, SIGKILL);
        wait(5000);
    }
}

void Process::signal(int sig) {
    if (m_status < 0) kill(m_pid, sig);
}

bool Process::reap(int options) {
    int raw = 0;
    if (waitpid(m_pid, &raw, options) != m_pid) return false;
    m_status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return true;
}

long status_field(pid_t pid, const std::string& key) {
    const std::string status = read_file("/proc/" + std::to_string(pid) + "/status");
    const size_t at = status.find(key);
    return at == std::string::npos ? 0 : std::stol(status.substr(at + key.size()));
}

bool Process::running() {
    return m_status < 0 && !reap(WNOHANG);
}

int Process::wait(int timeout_ms) {
    if (m_status >= 0) return m_status;
    if (timeout_ms < 0) {
        reap(0);
    } else if (!eventually([this] { return !running(); }, timeout_ms, 2)) {
        kill(m_pid, SIGKILL);
        reap(0);
    }
    return m_status;
}

std::string wait_for_line(const std::string& path, const std::string& text, int timeout_ms) {
    std::string line;
    const bool found = eventually(
        [&] {
            std::istringstream in(read_file(path));
            while (std::getline(in, line)) {
                if (!in.eof() && line.find(text) != std::string::npos) return true;  // a whole line
            }
            return false;
        },
        timeout_ms);
    return found ? line : "";
}

ServerProcess::ServerProcess(const std::string& binary, const std::vector<std::string>& args)
    : m_process(binary, args, m_dir.file("out"), m_dir.file("err")) {
    const std::string line = wait_for_line(out_path(), "listening on ", 10000);
    if (line.empty()) throw std::runtime_error(binary + " did not start: " + out() + err());
    m_port = static_cast<unsigned short>(std::stoi(line.substr(line.rfind(':') + 1)));
}

int ServerProcess::stop() {
    m_process.signal(SIGTERM);
    return m_process.wait(10000);
}

}  // namespace support
