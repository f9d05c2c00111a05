// Small helpers for the benchmark driver: timing, statistics, child
// processes and raw loopback sockets.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace bench {

using Clock = std::chrono::steady_clock;

struct Stats {
    double median = 0, min = 0, max = 0;
};
Stats stats_of(std::vector<double> samples);

struct Child {
    pid_t pid = -1;
    std::string outPath;
};
// Starts binary with args; standard output to outPath (or /dev/null).
Child spawn(const std::string& binary, const std::vector<std::string>& args,
            const std::string& outPath = "");
// Waits for the child; returns its peak RSS in KiB.
long wait_child(pid_t pid, int* status = nullptr);

std::string read_file(const std::string& path);
// Polls a file until it contains `text` after position `from`; returns the
// line holding it, or "" after timeoutMs.
std::string wait_for_line(const std::string& path, const std::string& text, int timeoutMs);

// A loopback listener on a free port.
int listen_loopback(unsigned short& port);
int connect_loopback(unsigned short port, bool nodelay);
int accept_one(int listener, bool nodelay);
void read_exact(int fd, char* data, size_t n);
void write_all(int fd, const char* data, size_t n);

}  // namespace bench
