// SPDX-License-Identifier: Apache-2.0
// Child processes for tests and benchmarks: started with their standard
// streams in files, waited for with or without a time limit, and the
// servers among them (qord-sim, the benchmarks' raw board) read back for
// the port they listen on.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "files.h"

namespace support {

// A number from /proc/PID/status ("VmRSS:", "Threads:"); 0 when the
// process or the key is not there.
long status_field(pid_t pid, const std::string& key);

class Process {
  public:
    // Standard input is /dev/null; standard output and error go to the
    // given files, or to /dev/null when a path is empty. Throws when the
    // program cannot be started. Any thread may start one; starts are taken
    // one at a time.
    Process(const std::string& binary, const std::vector<std::string>& args,
            const std::string& out_path = "", const std::string& err_path = "");
    ~Process();  // kills the child if it is still running
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    void signal(int sig);
    bool running();
    // The exit status, or 128 + the signal that ended it. With a time limit
    // (milliseconds) a child that overruns is killed; below 0, no limit.
    int wait(int timeout_ms = 60000);
    // The running child's peak resident set since it started its program
    // (VmHWM); 0 once it has ended. Not the rusage of the ended child, which
    // also counts the parent's pages that the child shared until its exec.
    long peak_rss_kib() const { return status_field(m_pid, "VmHWM:"); }

  private:
    bool reap(int options);
    pid_t m_pid = -1;
    int m_status = -1;
};

// Polls the file until a whole line of it contains `text`; returns that
// line, or "" after timeout_ms.
std::string wait_for_line(const std::string& path, const std::string& text, int timeout_ms);

// A server program that prints "... listening on HOST:PORT" once it is ready
// (qord-sim, the raw board). Its output is kept in files of its own.
class ServerProcess {
  public:
    // Throws when no such line comes within 10 s.
    ServerProcess(const std::string& binary, const std::vector<std::string>& args);
    unsigned short port() const { return m_port; }
    std::string out() const { return read_file(out_path()); }
    std::string err() const { return read_file(m_dir.file("err")); }
    std::string out_path() const { return m_dir.file("out"); }
    Process& process() { return m_process; }
    // SIGTERM, then the exit status.
    int stop();

  private:
    TempDir m_dir;
    Process m_process;
    unsigned short m_port = 0;
};

}  // namespace support
