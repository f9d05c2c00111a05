// SPDX-License-Identifier: Apache-2.0
// Runs the real qorc and qord-sim binaries for end-to-end tests. Every
// address used is on the loopback network.
#pragma once

#include <sys/types.h>

#include <gtest/gtest.h>

#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "eventually.h"
#include "loopback.h"
#include "process.h"

namespace e2e {

struct Result {
    int status = -1;  // exit status, or 128 + signal number
    std::string out;
    std::string err;
};

using namespace support;  // scratch files, processes, polling, raw sockets

const char* qorc_binary();
const char* qord_sim_binary();
// True in a cross build whose programs run under an emulator: what /proc
// says of them is then the emulator's.
bool under_emulator();

// Any program, to completion, with its output collected.
Result run_command(const std::string& binary, const std::vector<std::string>& args,
                   int timeoutMs = 60000);

// qorc with the given arguments, to completion. Without --url or -u it
// runs in an empty network namespace of its own.
Result run_qorc(const std::vector<std::string>& args, int timeoutMs = 60000);
// qorc --url ADDRESS, then the arguments.
Result run_at(const std::string& address, std::vector<std::string> args, int timeoutMs = 60000);
// qorc's first line when it connects to `address`.
std::string hello(const std::string& address);

// `text` with each {key} of `values` replaced by its value.
std::string fill(std::string text, const std::vector<std::pair<std::string, std::string>>& values);
// `text` against `pattern`, in which each {any} stands for any run of
// characters.
bool matches(std::string_view text, std::string_view pattern);
// A finished run against its exit status and its whole standard output and
// error (patterns as for matches()); the failure names each that differs.
::testing::AssertionResult ran(const Result& r, int status, const std::string& out,
                               const std::string& err);
#define EXPECT_RUN(result, status, out, err) EXPECT_TRUE(::e2e::ran(result, status, out, err))

// qord-sim on a free port of `listen_host`, started and ready to serve.
class Sim : public support::ServerProcess {
  public:
    explicit Sim(std::vector<std::string> args = {}, const std::string& listen_host = "127.0.0.1");
    ~Sim();
    std::string address() const;  // host:port, for --url
    Result run(const std::vector<std::string>& args, int timeoutMs = 60000) const {
        return run_at(address(), args, timeoutMs);
    }
    std::string hello() const { return e2e::hello(address()); }
    // Waits until its output holds a whole line with `text`; false after timeoutMs.
    bool wait_output(const std::string& text, int timeoutMs = 15000) const;

  private:
    std::string m_host;
};

// Discards what this process writes to std::cout while it lives.
struct MutedStdout {
    MutedStdout() { std::cout.setstate(std::ios::badbit); }
    ~MutedStdout() { std::cout.clear(); }
};

// What a running process holds, read from /proc.
struct Usage {
    long rssKib = 0;
    long threads = 0;
    long fds = 0;
    long cpuTicks = 0;  // user + system time, in clock ticks
};
Usage usage_of(pid_t pid);

// Moves this test process, and every program it starts from now on, into a
// network namespace of its own with only the loopback link, up. For tests
// that resolve names: nothing outside this machine can be asked. False where
// that is not allowed (not root).
bool enter_private_network();

// Network namespaces <base><name> for one test, base being <prefix><pid>,
// with an optional tag. They are made by shell steps, and all of them go with
// the object, also on failure; those of earlier runs that were killed go
// when it is made. Root only.
class Namespaces {
  public:
    Namespaces(const std::string& prefix, std::vector<std::string> names,
               const std::string& tag = "");
    ~Namespaces();
    Namespaces(const Namespaces&) = delete;
    Namespaces& operator=(const Namespaces&) = delete;
    std::string name(const std::string& n) const { return m_base + n; }
    // Runs shell `steps` with $1 the base and $2... `more`; throws
    // std::runtime_error with the steps' error output when they fail.
    void sh(const std::string& steps, const std::vector<std::string>& more = {}) const;
    // The argument vector that runs `args` inside namespace `n`.
    std::vector<std::string> exec(const std::string& n, std::vector<std::string> args) const;

  private:
    std::string m_base;
    std::vector<std::string> m_names;
};

}  // namespace e2e
