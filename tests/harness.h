// Runs the real qorc and qord-sim binaries for end-to-end tests. Every
// address used is on the loopback network.
#pragma once

#include <sys/types.h>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

namespace e2e {

struct Result {
    int status = -1;  // exit status, or 128 + signal number
    std::string out;
    std::string err;
};

// A scratch directory removed with everything in it when the object goes.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const;

  private:
    std::string m_path;
};

std::string read_file(const std::string& path);
bool file_exists(const std::string& path);

// A child process with standard output and error going to files.
class Process {
  public:
    Process(const std::string& binary, const std::vector<std::string>& args,
            const std::string& outPath, const std::string& errPath);
    ~Process();  // kills the child if it is still running
    pid_t pid() const { return m_pid; }
    void signal(int sig);
    // Waits at most timeoutMs; kills the child when it overruns. Returns the
    // status as Result::status does.
    int wait(int timeoutMs = 60000);
    bool running();

  private:
    pid_t m_pid = -1;
    int m_status = -1;
};

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

// qord-sim on 127.0.0.1 with a free port, started and ready to serve.
class Sim {
  public:
    explicit Sim(std::vector<std::string> args = {}, const std::string& listenHost = "127.0.0.1");
    ~Sim();
    unsigned short port() const { return m_port; }
    std::string address() const;  // host:port, for --url
    std::vector<std::string> url() const { return {"--url", address()}; }
    // Everything the simulator printed so far.
    std::string out() const;
    std::string err() const;
    // Waits until its output contains `text`; false after timeoutMs.
    bool wait_output(const std::string& text, int timeoutMs = 15000) const;
    Process& process() { return *m_process; }
    // SIGTERM and wait; returns the exit status.
    int stop();

  private:
    TempDir m_dir;
    std::string m_host;
    unsigned short m_port = 0;
    Process* m_process = nullptr;
};

// Discards what this process writes to std::cout while it lives.
class MutedStdout {
  public:
    MutedStdout() : m_saved(std::cout.rdbuf(m_sink.rdbuf())) {}
    ~MutedStdout() { std::cout.rdbuf(m_saved); }
    MutedStdout(const MutedStdout&) = delete;
    MutedStdout& operator=(const MutedStdout&) = delete;

  private:
    std::ostringstream m_sink;
    std::streambuf* m_saved;
};

// What a running process holds, read from /proc.
struct Usage {
    long rssKib = 0;
    long threads = 0;
    long fds = 0;
    long cpuTicks = 0;  // user + system time, in clock ticks
};
Usage usage_of(pid_t pid);

// An address on the loopback network where nothing listens.
std::string closed_address();

}  // namespace e2e
