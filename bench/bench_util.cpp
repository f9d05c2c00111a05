#include "bench_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace bench {

Stats stats_of(std::vector<double> s) {
    std::sort(s.begin(), s.end());
    Stats r;
    if (s.empty()) return r;
    r.min = s.front();
    r.max = s.back();
    r.median = s.size() % 2 ? s[s.size() / 2] : (s[s.size() / 2 - 1] + s[s.size() / 2]) / 2;
    return r;
}

Child spawn(const std::string& binary, const std::vector<std::string>& args,
            const std::string& outPath) {
    Child c;
    c.outPath = outPath;
    c.pid = fork();
    if (c.pid == 0) {
        const int out = open(outPath.empty() ? "/dev/null" : outPath.c_str(),
                             O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(out, 1);
        dup2(null, 2);
        std::vector<std::string> all{binary};
        all.insert(all.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& a : all) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execv(binary.c_str(), argv.data());
        _exit(127);
    }
    return c;
}

long wait_child(pid_t pid, int* status) {
    int raw = 0;
    rusage usage{};
    wait4(pid, &raw, 0, &usage);
    if (status) *status = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
    return usage.ru_maxrss;
}

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string wait_for_line(const std::string& path, const std::string& text, int timeoutMs) {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
        const std::string all = read_file(path);
        const size_t at = all.find(text);
        if (at != std::string::npos) {
            const size_t end = all.find('\n', at);
            if (end != std::string::npos) {
                const size_t begin = all.rfind('\n', at);
                return all.substr(begin == std::string::npos ? 0 : begin + 1,
                                  end - (begin == std::string::npos ? 0 : begin + 1));
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return "";
}

int listen_loopback(unsigned short& port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
        throw std::runtime_error("cannot listen on loopback");
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
    return fd;
}

int connect_loopback(unsigned short port, bool nodelay) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        throw std::runtime_error("cannot connect on loopback");
    }
    const int one = nodelay ? 1 : 0;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

int accept_one(int listener, bool nodelay) {
    const int fd = accept(listener, nullptr, nullptr);
    const int one = nodelay ? 1 : 0;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

void read_exact(int fd, char* data, size_t n) {
    while (n > 0) {
        const ssize_t r = read(fd, data, n);
        if (r <= 0) throw std::runtime_error("read failed");
        data += r;
        n -= static_cast<size_t>(r);
    }
}

void write_all(int fd, const char* data, size_t n) {
    while (n > 0) {
        const ssize_t r = write(fd, data, n);
        if (r <= 0) throw std::runtime_error("write failed");
        data += r;
        n -= static_cast<size_t>(r);
    }
}

}  // namespace bench
